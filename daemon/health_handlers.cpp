#include "daemon/handlers.h"

namespace scsipoold {

void add_health_handlers(Router& router, Context& context) {
  router.add("GET", "/svc/r/health", [&context](const Request&) {
    json_spirit::Value report = health_report(context.health, context.catalog);
    for (const std::string& text : context.restorer.missing()) {
      report["problems"].push_back("not exported again yet: " + text);
      report["status"] = "degraded";
    }
    return Reply{200, report};
  });
}

}  // namespace scsipoold
