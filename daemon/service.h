#pragma once
// The pool module as a service object of the ACE Service Configurator.

#include <string>

#include "daemon/config.h"

namespace scsipoold {

// Loads the module and opens its manager. False, with the reason in `error`, when the library cannot be
// loaded, the service configuration does not name the module, or its manager did not open. One thread, before
// requests are taken.
bool load_service(const Module_Config& module, std::string& error);

// Closes the manager. No request may be running.
void unload_service();

}  // namespace scsipoold
