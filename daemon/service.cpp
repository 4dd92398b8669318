#include "daemon/service.h"

#include <ace/Service_Config.h>
#include <ace/Service_Repository.h>
#include <ace/Service_Types.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "daemon/request_log.h"

namespace scsipoold {

namespace {

const char SERVICE_NAME[] = "SCSI_Pool_Manager_Service";

std::string with_cause(const std::string& what, const Request_Log& log) {
  const std::string cause = log.failure();
  return cause.empty() ? what : what + ": " + cause;
}

// The configurator keeps the linker's words to itself.
std::string why_not_loaded(const Module_Config& module, const Request_Log& log) {
  if (module.svc_conf.empty() && ::dlopen(module.library.c_str(), RTLD_LAZY) == nullptr)
    return "the module cannot be loaded: " + std::string(::dlerror());
  if (!module.svc_conf.empty() && ::access(module.svc_conf.c_str(), R_OK) != 0)
    return "cannot read '" + module.svc_conf + "': " + std::strerror(errno);
  const std::string& from = module.svc_conf.empty() ? module.library : module.svc_conf;
  return with_cause("the service " + std::string(SERVICE_NAME) + " cannot be loaded from " + from, log);
}

}  // namespace

bool load_service(const Module_Config& module, std::string& error) {
  Request_Log log;
  const int result = module.svc_conf.empty()
                         ? ACE_Service_Config::process_directive(service_directive(module).c_str())
                         : ACE_Service_Config::process_file(module.svc_conf.c_str());
  const ACE_Service_Type* service = nullptr;
  if (result != 0 || ACE_Service_Repository::instance()->find(SERVICE_NAME, &service) < 0) {
    error = why_not_loaded(module, log);
    return false;
  }
  // The service counts as loaded even when its manager could not be opened.
  std::string type;
  if (scsi_pool::SCSI_Pool_Manager::instance()->get_global_filesystem(type)) return true;
  error = with_cause("the pool manager could not be opened", log);
  return false;
}

void unload_service() {
  ACE_Service_Config::close();
}

}  // namespace scsipoold
