#pragma once
// What a request asks for, checked at the door: members of the body for POST and PUT, query parameters for
// the others. The first thing that is wrong is kept and names the argument; later calls then do nothing. One
// thread, one request.

#include <cstdint>
#include <string>

#include "daemon/members.h"
#include "daemon/router.h"
#include "platform/json/json_spirit.h"
#include "platform/lio/lio_types.h"

namespace scsipoold {

class Arguments {
 public:
  explicit Arguments(const Request& request);

  // Each takes the argument of that name; an absent one leaves `out` as it is.
  // A UUID, brought to lower case.
  Arguments& uuid(const char* key, std::string& out);
  // A name that a dataset or mount folder may have.
  Arguments& name(const char* key, std::string& out);
  Arguments& text(const char* key, std::string& out);
  Arguments& flag(const char* key, bool& out);
  Arguments& number(const char* key, std::uint64_t lowest, std::uint64_t highest, std::uint64_t& out);
  Arguments& object(const char* key, json_spirit::Object& out);
  Arguments& array(const char* key, json_spirit::Array& out);
  // Initiators: an array of {"initiator", "host_uuid"} in a body, one "initiator" in a query. Names are
  // checked for the kind of target and brought to the form that the kernel compares.
  Arguments& acls(const char* key, LIO_Target_Type type, LIO_ACLs& out);
  // "iSCSI" or "FC".
  Arguments& target_type(const char* key, std::string& out);
  // The argument must be there.
  Arguments& required(const char* key);

  bool has(const char* key) const { return members_.has(key); }
  void refuse(const char* key, const std::string& why) { members_.refuse(key, why); }
  // To be called last: false, with the refusal in `reply`, when something was wrong or unknown.
  bool finish(Reply& reply);

 private:
  const bool from_query_;
  json_spirit::Object values_;
  Members members_;
};

// Checks an initiator's name and brings it to the form that the kernel compares.
bool normal_initiator(LIO_Target_Type type, std::string& initiator, std::string& why);

}  // namespace scsipoold
