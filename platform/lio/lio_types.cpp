#include "platform/lio/lio_types.h"

#include "platform/base/log.h"

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

std::string lio_target_type_to_string(LIO_Target_Type type) {
  if (type == TYPE_ISCSI) return "iSCSI";
  if (type == TYPE_FC) return "FC";
  return "";
}

bool lio_target_string_to_type(const std::string& text, LIO_Target_Type& type) {
  type = text == "iSCSI" ? TYPE_ISCSI : text == "FC" ? TYPE_FC : TYPE_UNKNOWN;
  return type != TYPE_UNKNOWN;
}

Object acl_to_json(const LIO_ACL& acl) {
  return Object{{"initiator", acl.initiator}, {"host_uuid", acl.host_uuid}};
}

bool operator>>(const LIO_ACLs& acls, Array& array) {
  for (const LIO_ACL& acl : acls)
    array.push_back(acl_to_json(acl));
  return true;
}

bool operator>>(const LIO_ACLs& acls, std::string& text) {
  Array array;
  acls >> array;
  text = JSON_Dump(array);
  return true;
}

bool operator<<(LIO_ACLs& acls, const Array& array) {
  LIO_ACLs read;
  for (const Value& element : array) {
    const Object* object = json_spirit::get_object(element);
    LIO_ACL acl;
    if (!object || !json_spirit::object_find(*object, "initiator", acl.initiator))
      return LOG_FAILURE("Failed to read ACLs: an element has no initiator\n");
    if (object->count("host_uuid") && !json_spirit::object_find(*object, "host_uuid", acl.host_uuid))
      return LOG_FAILURE("Failed to read ACLs: the host_uuid of '%s' is no text\n", acl.initiator.c_str());
    read.push_back(acl);
  }
  acls.insert(acls.end(), read.begin(), read.end());
  return true;
}

bool operator<<(LIO_ACLs& acls, const std::string& text) {
  if (text.empty()) return true;
  Value value;
  if (!loads_json(text, value)) return LOG_FAILURE("Failed to read ACLs: the text is not JSON\n");
  const Array* array = json_spirit::get_array(value);
  if (!array) return LOG_FAILURE("Failed to read ACLs: the text is no JSON array\n");
  return acls << *array;
}
