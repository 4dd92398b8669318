#pragma once
// Strict reading of a JSON object's members, for the configuration file and for request bodies. Nothing is
// converted: text is not a number, 1 is not true, 1.0 is not 1. The first thing that is wrong is kept and
// names the member; later calls then do nothing. One thread, one object, one use.

#include <cstdint>
#include <set>
#include <string>

#include "platform/json/json_spirit.h"

namespace scsipoold {

class Members {
 public:
  // `prefix` goes before the member's name in messages, such as "tls.". Both must outlive this object.
  explicit Members(const json_spirit::Object& object, std::string prefix = "");

  // Each takes the member of that name. An absent member leaves `out` as it is, unless it was named by
  // required(). A null is of a wrong type.
  Members& text(const char* key, std::string& out);
  Members& flag(const char* key, bool& out);
  Members& number(const char* key, std::uint64_t lowest, std::uint64_t highest, std::uint64_t& out);
  Members& object(const char* key, json_spirit::Object& out);
  Members& array(const char* key, json_spirit::Array& out);
  // Whatever it is.
  Members& any(const char* key);
  // The member must be there (of whatever type).
  Members& required(const char* key);

  bool has(const char* key) const;
  // Makes `why` the thing that is wrong, after the member's name, unless something was wrong before.
  void refuse(const std::string& key, const std::string& why);
  // To be called last: false, with the message in `error`, when something was wrong or a member was not asked
  // for.
  bool finish(std::string& error);

 private:
  const json_spirit::Value* take(const char* key);
  void wrong_type(const char* key, const char* wanted, const json_spirit::Value& found);

  const json_spirit::Object& object_;
  std::string prefix_;
  std::string error_;
  std::set<std::string> known_;
};

// "total_size" as it is put before what is wrong with it; control characters of a hostile name are replaced.
std::string quoted_name(const std::string& name);

}  // namespace scsipoold
