#include "daemon/demo_mode.h"

#include <map>
#include <string>

#include "daemon/datasets.h"
#include "platform/lio/lio.h"

namespace scsipoold {

using json_spirit::Object;
using json_spirit::Value;

namespace {

enum class Mode { UNKNOWN, ACL, DEMO };

Mode mode_of(const std::string& type, const std::string& name) {
  const LIO_Target_Manager_var manager = LIO_Target_Manager_Factory::get_manager(type.c_str());
  const LIO_Target_var target = manager ? manager->create_or_get_target(name.c_str()) : nullptr;
  const Target_Port_Group_var group = target ? target->get_tpg(1) : nullptr;
  if (!group) return Mode::UNKNOWN;
  return group->demo_mode() ? Mode::DEMO : Mode::ACL;
}

}  // namespace

void add_demo_mode(json_spirit::Array& records) {
  std::map<std::string, Mode> modes;  // LUNs of one pool share a target: it is asked once
  for (Value& value : records) {
    if (!value.is_object()) continue;
    Object& record = value.get_ref<Object&>();
    std::string type, target;
    if (record.count("lun_num") == 0 || !json_spirit::object_find(record, "type", type) ||
        !json_spirit::object_find(record, "target", target))
      continue;
    const auto known = modes.find(target);
    const Mode mode = known != modes.end() ? known->second : (modes[target] = mode_of(type, target));
    if (mode != Mode::UNKNOWN) record["demo_mode"] = mode == Mode::DEMO;
  }
}

bool check_acls_changed(const Request& request, const std::string& pool_id, const std::string& volume_id,
                        const LIO_ACLs& acls, bool add, Reply& reply) {
  scsi_pool::Sub_Volume_Exporter::Export_Info info;
  if (!manager()->lun_exported(pool_id, volume_id, info)) {
    reply = failure(request, "the export cannot be read");
    return false;
  }
  for (const LIO_ACL& acl : acls) {
    if (scsi_pool::match_initiator(info.acls, acl) == add) continue;
    reply = refusal(409, "target '" + info.target +
                             "' is in demo mode: every initiator may use its LUNs, and initiators cannot be "
                             "changed; unexport its LUNs and export the first one with initiators");
    return false;
  }
  return true;
}

}  // namespace scsipoold
