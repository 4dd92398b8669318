#pragma once
// The exports as three sources have them: the catalog, the saved target configuration and the kernel.

#include <string>
#include <vector>

#include "daemon/context.h"
#include "platform/json/json_spirit.h"
#include "platform/lio/lio_report.h"

namespace scsipoold {

struct Checked_Export {
  std::string path;  // of the volume; what the three have in common
  std::string pool_id, lun_id;
  bool in_catalog = false, in_saved = false, in_kernel = false;
  std::string type, target;  // as the catalog has them, else as saved or in the kernel
  int catalog_number = -1, saved_number = -1, kernel_number = -1;
  LIO_ACLs catalog_acls, saved_acls;
  bool demo_mode = false;  // as saved: initiators are recorded but not applied
  std::string difference;  // one line for people; empty when the three agree
};

struct Export_Check {
  std::vector<Checked_Export> exports;
  LIO_Report findings;
  bool good() const;
};

// Changes nothing. False, logged, when one of the three cannot be read.
bool check_exports(Context& context, Export_Check& check);

// Makes the kernel and the saved configuration what the catalog says: exports that the catalog does not know
// are removed, those that only the catalog knows are made again, and what a crash left behind goes. False,
// logged, when something could not be mended; check_exports() tells what.
bool repair_exports(Context& context);

json_spirit::Value to_json(const Export_Check& check);

}  // namespace scsipoold
