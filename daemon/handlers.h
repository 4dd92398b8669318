#pragma once
// The resources that are served. Each file of handlers adds its own routes.

#include "daemon/context.h"
#include "daemon/router.h"

namespace scsipoold {

void add_health_handlers(Router& router, Context& context);
void add_pool_handlers(Router& router, Context& context);
void add_lun_handlers(Router& router, Context& context);
void add_snapshot_handlers(Router& router, Context& context);
void add_filesystem_handlers(Router& router, Context& context);
void add_export_handlers(Router& router, Context& context);
void add_job_handlers(Router& router, Context& context);
void add_catalog_handlers(Router& router, Context& context);

// All of them. `context` must outlive the router.
void add_all_handlers(Router& router, Context& context);

}  // namespace scsipoold
