#pragma once
// What is done at start, in order. A step that fails is noted in health and does not keep the daemon from
// starting: the pools that are well must be served.

#include <functional>
#include <vector>

#include "daemon/context.h"

namespace scsipoold {

struct Start_Step {
  const char* name;                   // in messages: "Failed to <name>"
  std::function<bool(Context&)> run;  // false: logged by the step
};

// Before the module's service opens, because that resumes the mounts of sub filesystems: pools are brought
// back.
const std::vector<Start_Step>& steps_before_service();
// With the manager open, before requests are taken.
const std::vector<Start_Step>& steps_after_service();

void run_steps(const std::vector<Start_Step>& steps, Context& context);

}  // namespace scsipoold
