#pragma once

#include "platform/process/auto_handle.h"

namespace platform {

// A close-on-exec pipe whose ends are never 0, 1 or 2, also in a process that closed those: they would
// collide with the child's standard handles. False with errno on failure.
bool make_pipe(Auto_Handle& read_end, Auto_Handle& write_end);

// Lets the pipe hold a mebibyte instead of 64 KiB, if the system allows it: both ends of a stream run longer
// before one waits for the other.
void widen_pipe(const Auto_Handle& end);

}  // namespace platform
