#include "daemon/handlers.h"

namespace scsipoold {

void add_all_handlers(Router& router, Context& context) {
  add_health_handlers(router, context);
  add_pool_handlers(router, context);
  add_lun_handlers(router, context);
  add_snapshot_handlers(router, context);
  add_filesystem_handlers(router, context);
  add_export_handlers(router, context);
  add_job_handlers(router, context);
  add_catalog_handlers(router, context);
}

}  // namespace scsipoold
