#include "daemon/pool_request.h"

#include <unistd.h>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/split.hpp>

#include <algorithm>
#include <cctype>
#include <limits>

#include "daemon/members.h"
#include "platform/base/names.h"
#include "platform/base/uuid.h"
#include "platform/lio/lio_names.h"

namespace scsipoold {

using json_spirit::Object;

namespace {

constexpr std::uint64_t LARGEST_SIZE = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t LARGEST_BLOCK = 1024 * 1024;
// Recycling goes on after every new snapshot: without a number of the user's own, a day of hourly ones is
// kept.
constexpr std::uint64_t DEFAULT_RETENTION = 24;

bool target_char(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == ':';
}

bool starts_with_letter(const std::string& text) {
  return !text.empty() && std::isalpha(static_cast<unsigned char>(text[0]));
}

void check_name(Members& members, const std::string& name) {
  std::string why;
  if (!platform::valid_dataset_name(name, why)) members.refuse("pool_name", why);
}

// Brings the target's name to the form that the kernel compares.
void check_target(Members& members, LIO_Target_Type type, std::string& target) {
  const lio::Name_Form form = type == TYPE_FC ? lio::Name_Form::fibre_channel : lio::Name_Form::iscsi;
  std::string normal, why;
  if (target.empty()) return;
  if (lio::normal_name(form, target, normal, why)) {
    target = normal;
  } else {
    members.refuse("target", why);
  }
}

// ZFS takes more names with each release; its own tools refuse what they do not know.
void check_compression(Members& members, const std::string& fs_type, const std::string& compression) {
  const std::string lower = boost::to_lower_copy(compression);
  if (fs_type == "btrfs" && !lower.empty() && lower != "none" && lower != "lzo" && lower != "zlib") {
    members.refuse("compression", "Btrfs pools take none, lzo or zlib");
  }
  std::string why;
  if (!compression.empty() && !platform::valid_dataset_name(compression, why))
    members.refuse("compression", why);
}

void check_global_device(Members& members, const std::string& fs_type, const std::string& device) {
  std::string why;
  if (device.empty()) return;
  const bool good =
      fs_type == "btrfs" ? platform::valid_path(device, why) : platform::valid_dataset_path(device, why);
  if (!good) members.refuse("global_dev", why);
}

// What new volumes of the pool are made with must be of the type that they read it as.
bool check_attributes(const Object& attributes, std::string& error) {
  bool flag = false;
  std::uint64_t number = 0;
  Members members(attributes, "extended_attrs.");
  members.flag("async", flag).flag("checksum", flag).flag("backstore_trim", flag);
  members.number("block_size", 0, LARGEST_BLOCK, number);
  for (const auto& attribute : attributes) {
    if (attribute.first.empty()) members.refuse("", "must not be empty");
    members.any(attribute.first.c_str());
  }
  return members.finish(error);
}

void read_type(Members& members, LIO_Target_Type& type) {
  std::string text = "iSCSI";
  members.text("type", text);
  if (!lio_target_string_to_type(text, type)) members.refuse("type", "must be iSCSI or FC");
}

void read_id(Members& members, std::string& id) {
  std::string text;
  members.text("pool_id", text);
  if (members.has("pool_id") && !read_pool_id(text, id)) members.refuse("pool_id", "must be a UUID");
}

std::string host_name() {
  char name[256] = {};
  return ::gethostname(name, sizeof name - 1) == 0 ? name : "";
}

}  // namespace

bool read_pool_id(const std::string& text, std::string& id) {
  if (!platform::is_uuid(text)) return false;
  id = boost::to_lower_copy(text);
  return true;
}

std::string default_target(const std::string& host_name, const std::string& pool_name) {
  std::vector<std::string> parts;
  const std::string host = host_name.empty() ? "scsipool.local" : boost::to_lower_copy(host_name);
  boost::split(parts, host, boost::is_any_of("."), boost::token_compress_on);
  std::reverse(parts.begin(), parts.end());
  std::string text = "iqn.2003-01." + boost::join(parts, ".");
  std::string name = boost::to_lower_copy(pool_name);
  bool changed = false;
  for (char& c : name) {
    if (target_char(c) && c != ':') continue;
    c = '-';
    changed = true;
  }
  name.resize(std::min<std::size_t>(name.size(), 100));
  // Two names that come to the same text must not share a target.
  if (changed || name.size() < pool_name.size() || name != pool_name) {
    name += "-" + platform::uuid_v5(platform::zero_uuid(), pool_name).substr(0, 8);
  }
  for (char& c : text) {
    if (!target_char(c)) c = '-';
  }
  return text.substr(0, 110) + ":" + name;
}

bool read_pool_creation(const Object& body, const std::string& default_fs, Pool_Creation& creation,
                        std::string& error) {
  auto& option = creation.option;
  std::uint64_t retention = DEFAULT_RETENTION;
  option.fs_type = default_fs;
  Members members(body);
  read_id(members, creation.id);
  members.required("pool_name").text("pool_name", creation.name);
  members.required("total_size").number("total_size", 1, LARGEST_SIZE, option.size);
  members.text("fs_type", option.fs_type).text("global_dev", option.global_dev);
  members.flag("thin_provision", option.thin_provision).text("compression", option.compression);
  members.flag("dedup", option.dedup).text("target", option.target);
  members.number("retention", 0, 65535, retention).object("extended_attrs", option.ext_attrs);
  members.flag("replace_orphan", creation.replace_orphan);
  read_type(members, option.lun_type);
  if (members.has("pool_name")) check_name(members, creation.name);
  if (option.fs_type != "btrfs" && option.fs_type != "zfs") members.refuse("fs_type", "must be btrfs or zfs");
  check_global_device(members, option.fs_type, option.global_dev);
  check_compression(members, option.fs_type, option.compression);
  check_target(members, option.lun_type, option.target);
  if (option.lun_type == TYPE_FC && option.target.empty()) {
    members.refuse("target", "is missing: FC pools need the port name of the host's adapter");
  }
  if (option.fs_type == "zfs" && option.global_dev.empty() && !creation.id.empty() &&
      !starts_with_letter(creation.id)) {
    members.refuse("pool_id", "must begin with a letter for a ZFS pool");
  }
  if (creation.replace_orphan && creation.id.empty()) members.refuse("replace_orphan", "needs a pool_id");
  if (!members.finish(error) || !check_attributes(option.ext_attrs, error)) return false;
  option.retention = static_cast<ACE_UINT16>(retention);
  if (option.target.empty()) option.target = default_target(host_name(), creation.name);
  // insert() leaves those that the user gave. Block size 0 takes the module's.
  option.ext_attrs.insert({{"async", false}, {"checksum", true}, {"block_size", 0u}});
  return true;
}

bool read_pool_change(const Object& body, Pool_Change& change, std::string& error) {
  std::uint64_t retention = 0;
  Members members(body);
  members.required("pool_id");
  read_id(members, change.id);
  members.text("pool_name", change.name).number("retention", 1, 65535, retention);
  members.object("extended_attrs", change.ext_attrs);
  if (members.has("pool_name")) check_name(members, change.name);
  if (!members.has("pool_name") && !members.has("retention") && !members.has("extended_attrs")) {
    members.refuse("pool_name", "nothing to change: give pool_name, retention or extended_attrs");
  }
  if (!members.finish(error) || !check_attributes(change.ext_attrs, error)) return false;
  change.retention = static_cast<ACE_UINT16>(retention);
  return true;
}

}  // namespace scsipoold
