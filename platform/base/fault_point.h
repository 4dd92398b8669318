#pragma once
// Named places where the crash tests end the process as a power cut would: with the environment variable
// SCSIPOOL_FAULT equal to the name, the process kills itself with SIGKILL. Only in builds with
// SCSIPOOL_FAULT_POINTS; else nothing.

#ifdef SCSIPOOL_FAULT_POINTS

namespace platform {

void fault_point(const char* name);

}  // namespace platform

#define FAULT_POINT(NAME) ::platform::fault_point(NAME)
#else
#define FAULT_POINT(NAME) static_cast<void>(0)
#endif
