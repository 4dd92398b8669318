#pragma once
// The plain types of the LIO target library: target kinds and initiator ACLs, with their text and JSON forms.

#include <string>
#include <vector>

#include "platform/json/json_spirit.h"

enum LIO_Target_Type { TYPE_UNKNOWN = 0, TYPE_ISCSI = 1, TYPE_FC = 2 };

// "iSCSI" or "FC"; an empty text for TYPE_UNKNOWN.
std::string lio_target_type_to_string(LIO_Target_Type type);
// False, with `type` set to TYPE_UNKNOWN, for any other text (case counts).
bool lio_target_string_to_type(const std::string& text, LIO_Target_Type& type);

struct LIO_ACL {
  std::string initiator;  // initiator name: iqn., eui. or naa. form, or an FC port name
  std::string host_uuid;  // the backup client host that owns the initiator; may be empty
};

using LIO_ACLs = std::vector<LIO_ACL>;

// One ACL as JSON: {"initiator": ..., "host_uuid": ...}.
json_spirit::Object acl_to_json(const LIO_ACL& acl);
// The array as compact JSON text; always true.
bool operator>>(const LIO_ACLs& acls, std::string& text);
// Appends one JSON object for each ACL; always true.
bool operator>>(const LIO_ACLs& acls, json_spirit::Array& array);
// Appends the ACLs of a JSON array (or its text). False, with `acls` untouched, when an element is no object
// with the string "initiator" (and, when there, the string "host_uuid"); an empty text stands for an empty
// array.
bool operator<<(LIO_ACLs& acls, const json_spirit::Array& array);
bool operator<<(LIO_ACLs& acls, const std::string& text);
