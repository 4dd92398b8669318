#pragma once

namespace platform {

// A random number over the whole range of the type, from the system's generator. Any thread.
unsigned random_number();

}  // namespace platform
