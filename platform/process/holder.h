#pragma once

#include <string>

namespace platform {

// Who has the file or device at `path` open or mounted, as text for an error message: "qemu-img (pid 123),
// mounted on /mnt". Empty when nobody is found (the kernel itself may still hold it, a target's backstore for
// one).
std::string device_holders(const std::string& path);

}  // namespace platform
