// GET and POST /svc/r/scsipool/export/check.

#include "daemon/arguments.h"
#include "daemon/export_check.h"
#include "daemon/handlers.h"

namespace scsipoold {

namespace {

Reply check(Context& context, const Request& request) {
  Export_Check found;
  if (!check_exports(context, found)) return failure(request, "the exports cannot be checked");
  return {200, to_json(found)};
}

Reply repair(Context& context, const Request& request) {
  Reply reply;
  bool wanted = false;
  if (!Arguments(request).flag("repair", wanted).required("repair").finish(reply)) return reply;
  if (wanted && !repair_exports(context)) {
    reply = failure(request, "not all of the exports could be mended");
    Export_Check left;
    if (check_exports(context, left)) reply.body["check"] = to_json(left);
    return reply;
  }
  return check(context, request);
}

}  // namespace

void add_export_handlers(Router& router, Context& context) {
  const char PATH[] = "/svc/r/scsipool/export/check";
  router.add("GET", PATH, [&context](const Request& request) { return check(context, request); });
  router.add("POST", PATH, [&context](const Request& request) { return repair(context, request); });
}

}  // namespace scsipoold
