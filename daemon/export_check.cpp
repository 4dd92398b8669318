#include "daemon/export_check.h"

#include <ace/Guard_T.h>

#include <algorithm>
#include <map>
#include <set>

#include "daemon/datasets.h"
#include "platform/base/log.h"
#include "platform/lio/lio_saved_config.h"

namespace scsipoold {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using Export_Info = scsi_pool::Sub_Volume_Exporter::Export_Info;

namespace {

using By_Path = std::map<std::string, Checked_Export>;

constexpr unsigned short GROUP_TAG = 1;

// The ACLs of one list whose initiators another list has not.
LIO_ACLs only_in(const LIO_ACLs& acls, const LIO_ACLs& others) {
  LIO_ACLs only;
  std::copy_if(acls.begin(), acls.end(), std::back_inserter(only),
               [&](const LIO_ACL& acl) { return !scsi_pool::match_initiator(others, acl); });
  return only;
}

bool same_initiators(const Checked_Export& one) {
  return one.demo_mode || (only_in(one.catalog_acls, one.saved_acls).empty() &&
                           only_in(one.saved_acls, one.catalog_acls).empty());
}

std::string names_of(const LIO_ACLs& acls) {
  std::string names;
  for (const LIO_ACL& acl : acls)
    names += (names.empty() ? "" : ", ") + acl.initiator;
  return names.empty() ? "none" : names;
}

bool read_pool_exports(Context& context, const std::string& pool_id, By_Path& exports) {
  Array rows;
  if (!context.catalog.list_export(pool_id, rows, nullptr))
    return LOG_FAILURE("Failed to list the catalog's exports\n");
  if (rows.empty()) return true;
  scsi_pool::SCSI_Pool_Backstore_Manager_var backstore(manager()->init_backstore_mgr(pool_id));
  for (const Value& value : rows) {
    const Object* row = json_spirit::get_object(value);
    Checked_Export one;
    if (row == nullptr || !json_spirit::object_find(*row, "uuid", one.lun_id)) continue;
    one.pool_id = pool_id;
    one.in_catalog = true;
    json_spirit::object_find(*row, "lun_num", one.catalog_number);
    json_spirit::object_find(*row, "ext_type", one.type);
    json_spirit::object_find(*row, "ext_target", one.target);
    std::string acls;
    json_spirit::object_find(*row, "acls", acls);
    if (!(one.catalog_acls << acls))
      return LOG_FAILURE("Failed to read the initiators of '%s' in the catalog\n", one.lun_id.c_str());
    // A volume that is gone has no path; it is kept under its id, so that it is not lost from the check.
    if (!backstore || !backstore->volume_exist(one.lun_id) ||
        !backstore->get_volume_dataset(one.lun_id, one.path))
      one.path = "(missing) " + one.lun_id;
    exports[one.path] = one;
  }
  return true;
}

bool read_catalog(Context& context, By_Path& exports) {
  Array pools;
  if (!context.catalog.list_pools(pools, nullptr)) return LOG_FAILURE("Failed to list the catalog's pools\n");
  for (const Value& value : pools) {
    const Object* pool = json_spirit::get_object(value);
    std::string id;
    if (pool != nullptr && json_spirit::object_find(*pool, "uuid", id) &&
        !read_pool_exports(context, id, exports))
      return false;
  }
  return true;
}

void add(By_Path& exports, const std::vector<LIO_Export>& found, bool kernel) {
  for (const LIO_Export& lun : found) {
    Checked_Export& one = exports[lun.path];
    one.path = lun.path;
    (kernel ? one.in_kernel : one.in_saved) = true;
    (kernel ? one.kernel_number : one.saved_number) = lun.number;
    if (!kernel) {
      one.saved_acls = lun.acls;
      one.demo_mode = lun.demo_mode;
    }
    if (one.target.empty()) one.target = lun.target;
    if (one.type.empty()) one.type = lio_target_type_to_string(lun.type);
  }
}

std::string difference_of(const Checked_Export& one) {
  if (!one.in_catalog) return "the catalog does not know this export";
  if (one.path.compare(0, 9, "(missing)") == 0) return "the volume is missing";
  if (!one.in_kernel) return "the kernel does not have this export";
  if (!one.in_saved) return "this export is not saved: it would not come back after a reboot";
  if (one.catalog_number != one.kernel_number)
    return "the LUN number is " + std::to_string(one.kernel_number) + ", the catalog says " +
           std::to_string(one.catalog_number);
  if (!same_initiators(one))
    return "the initiators are " + names_of(one.saved_acls) + "; the catalog says " +
           names_of(one.catalog_acls);
  return "";
}

// The record goes and the volume is exported anew, with the type, target and initiators of the record.
bool export_again(Context& context, const Checked_Export& one) {
  Export_Info info;
  info.type = one.type;
  info.target = one.target;
  info.acls = one.catalog_acls;
  if (!context.catalog.del_export(one.pool_id, one.lun_id)) return false;
  if (manager()->export_lun(one.pool_id, one.lun_id, info)) return true;
  // The record comes back, so that a later repair can try again.
  std::string acls;
  one.catalog_acls >> acls;
  context.catalog.add_export(one.lun_id, one.pool_id, static_cast<ACE_UINT16>(one.catalog_number), acls,
                             one.type.c_str(), one.target.c_str());
  return LOG_FAILURE("Failed to export '%s' again\n", one.lun_id.c_str());
}

// A change of the initiators that stopped before it was recorded is taken back.
bool set_initiators(const Checked_Export& one) {
  const LIO_Lun_var lun = LIO_Target_Manager_Factory::get_lun(one.type.c_str(), one.target.c_str(), GROUP_TAG,
                                                              static_cast<unsigned short>(one.kernel_number));
  std::string path;
  if (lun && lun->backstore_path(path) && path == one.path &&
      lun->del_acls(only_in(one.saved_acls, one.catalog_acls), true) &&
      lun->add_acls(only_in(one.catalog_acls, one.saved_acls), true))
    return true;
  return LOG_FAILURE("Failed to bring the initiators of '%s' back\n", one.lun_id.c_str());
}

// Initiators know the volume under the number that the kernel and the saved configuration agree on.
bool record_number(Context& context, const Checked_Export& one) {
  std::string acls;
  one.catalog_acls >> acls;
  return (context.catalog.del_export(one.pool_id, one.lun_id) &&
          context.catalog.add_export(one.lun_id, one.pool_id, static_cast<ACE_UINT16>(one.kernel_number),
                                     acls, one.type.c_str(), one.target.c_str())) ||
         LOG_FAILURE("Failed to record the LUN number of '%s'\n", one.lun_id.c_str());
}

bool mend(Context& context, const Checked_Export& one) {
  if (!one.in_catalog || one.path.compare(0, 9, "(missing)") == 0) return true;
  if (!one.in_kernel) return export_again(context, one);
  if (one.in_saved && one.saved_number == one.kernel_number && one.catalog_number != one.kernel_number &&
      !record_number(context, one))
    return false;
  return !one.in_saved || same_initiators(one) || set_initiators(one);
}

bool compare_sources(Context& context, Export_Check& check) {
  By_Path exports;
  std::vector<LIO_Export> saved, kernel;
  if (!read_catalog(context, exports)) return false;
  if (!LIO_Saved_Config::list_saved(saved) || !LIO_Saved_Config::list_kernel(kernel)) return false;
  add(exports, saved, false);
  add(exports, kernel, true);
  for (auto& one : exports) {
    one.second.difference = difference_of(one.second);
    check.exports.push_back(one.second);
  }
  return LIO_Saved_Config::compare(check.findings);
}

// What the catalog does not know is no longer wanted: without its saved record it counts as a leftover.
bool remove_unwanted(Context& context, Export_Check& left) {
  const ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(scsi_pool::LOCK);
  Export_Check found;
  if (!guard.locked() || !compare_sources(context, found)) return false;
  bool good = true;
  for (const Checked_Export& one : found.exports)
    if (!one.in_catalog && one.in_saved) good = LIO_Saved_Config::forget(one.path) && good;
  LIO_Report report;
  good = LIO_Saved_Config::repair(report) && good;
  return compare_sources(context, left) && good;
}

}  // namespace

bool Export_Check::good() const {
  return findings.empty() && std::all_of(exports.begin(), exports.end(),
                                         [](const Checked_Export& one) { return one.difference.empty(); });
}

// An export or unexport that is being made would look like a difference, and be taken for a leftover.
bool check_exports(Context& context, Export_Check& check) {
  const ACE_Read_Guard<ACE_RW_Thread_Mutex> guard(scsi_pool::LOCK);
  return guard.locked() && compare_sources(context, check);
}

bool repair_exports(Context& context) {
  Export_Check left;
  bool good = remove_unwanted(context, left);
  for (const Checked_Export& one : left.exports)
    good = mend(context, one) && good;
  return good;
}

Value to_json(const Export_Check& check) {
  Array exports, findings;
  for (const Checked_Export& one : check.exports) {
    Object record{{"path", one.path}, {"pool_id", one.pool_id}, {"lun_id", one.lun_id},
                  {"type", one.type}, {"target", one.target},   {"catalog", nullptr},
                  {"saved", nullptr}, {"kernel", nullptr},      {"difference", one.difference}};
    if (one.in_catalog) record["catalog"] = one.catalog_number;
    if (one.in_saved) record["saved"] = one.saved_number;
    if (one.in_kernel) record["kernel"] = one.kernel_number;
    exports.push_back(std::move(record));
  }
  for (const LIO_Finding& finding : check.findings)
    findings.push_back(Object{{"kind", lio_finding_name(finding.kind)},
                              {"target", finding.target},
                              {"path", finding.path},
                              {"initiator", finding.initiator},
                              {"text", finding.text}});
  return Object{{"ok", check.good()}, {"exports", exports}, {"findings", findings}};
}

}  // namespace scsipoold
