#include "daemon/arguments.h"

#include <cerrno>
#include <cstdlib>

#include "daemon/pool_request.h"
#include "platform/base/names.h"
#include "platform/lio/lio_names.h"

namespace scsipoold {

using json_spirit::Object;
using json_spirit::Value;

namespace {

Object values_of(const Request& request, bool from_query) {
  if (!from_query) return request.body;
  Object values;
  for (const auto& one : request.query)
    values[one.first] = one.second;
  return values;
}

bool decimal(const std::string& text, std::uint64_t& number) {
  if (text.empty() || text.size() > 20 || text.find_first_not_of("0123456789") != std::string::npos)
    return false;
  errno = 0;
  number = std::strtoull(text.c_str(), nullptr, 10);
  return errno == 0;
}

}  // namespace

bool normal_initiator(LIO_Target_Type type, std::string& initiator, std::string& why) {
  const lio::Name_Form form = type == TYPE_FC ? lio::Name_Form::fibre_channel : lio::Name_Form::iscsi;
  std::string normal;
  if (!lio::normal_name(form, initiator, normal, why)) return false;
  initiator = normal;
  return true;
}

Arguments::Arguments(const Request& request)
    : from_query_(request.method == "GET" || request.method == "DELETE"),
      values_(values_of(request, from_query_)),
      members_(values_) {}

Arguments& Arguments::uuid(const char* key, std::string& out) {
  std::string given;
  members_.text(key, given);
  if (has(key) && !read_pool_id(given, out)) refuse(key, "must be a UUID, not " + quoted_name(given));
  return *this;
}

Arguments& Arguments::name(const char* key, std::string& out) {
  std::string given, why;
  members_.text(key, given);
  if (!has(key)) return *this;
  if (platform::valid_dataset_name(given, why))
    out = given;
  else
    refuse(key, why);
  return *this;
}

Arguments& Arguments::text(const char* key, std::string& out) {
  members_.text(key, out);
  return *this;
}

Arguments& Arguments::flag(const char* key, bool& out) {
  if (!from_query_) {
    members_.flag(key, out);
    return *this;
  }
  std::string given;
  members_.text(key, given);
  if (!has(key)) return *this;
  if (given != "true" && given != "false") refuse(key, "must be true or false");
  out = given == "true";
  return *this;
}

Arguments& Arguments::number(const char* key, std::uint64_t lowest, std::uint64_t highest,
                             std::uint64_t& out) {
  if (!from_query_) {
    members_.number(key, lowest, highest, out);
    return *this;
  }
  std::string given;
  members_.text(key, given);
  std::uint64_t value = 0;
  if (!has(key)) return *this;
  if (decimal(given, value) && value >= lowest && value <= highest)
    out = value;
  else
    refuse(key, "must be a whole number from " + std::to_string(lowest) + " to " + std::to_string(highest));
  return *this;
}

Arguments& Arguments::object(const char* key, Object& out) {
  members_.object(key, out);
  return *this;
}

Arguments& Arguments::array(const char* key, json_spirit::Array& out) {
  members_.array(key, out);
  return *this;
}

Arguments& Arguments::acls(const char* key, LIO_Target_Type type, LIO_ACLs& out) {
  LIO_ACLs given;
  if (from_query_) {
    std::string initiator;
    members_.text(key, initiator);
    if (has(key)) given.push_back({initiator, ""});
  } else {
    json_spirit::Array array;
    members_.array(key, array);
    if (!(given << array))
      refuse(key, "must be an array of objects with the string \"initiator\" and, if wanted, \"host_uuid\"");
  }
  for (LIO_ACL& acl : given) {
    std::string why;
    if (!normal_initiator(type, acl.initiator, why))
      refuse(key, "initiator " + quoted_name(acl.initiator) + ": " + why);
  }
  if (has(key)) out = given;
  return *this;
}

Arguments& Arguments::target_type(const char* key, std::string& out) {
  LIO_Target_Type type = TYPE_UNKNOWN;
  std::string given;
  members_.text(key, given);
  if (!has(key)) return *this;
  if (lio_target_string_to_type(given, type))
    out = given;
  else
    refuse(key, "must be iSCSI or FC");
  return *this;
}

Arguments& Arguments::required(const char* key) {
  members_.required(key);
  return *this;
}

bool Arguments::finish(Reply& reply) {
  std::string why;
  if (members_.finish(why)) return true;
  reply = refusal(400, why);
  return false;
}

}  // namespace scsipoold
