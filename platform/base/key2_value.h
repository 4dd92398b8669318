#pragma once
// One row of a static table that maps a text key to a value. A table ends with a row whose key is null.

#include <cstddef>

namespace platform {

template <typename T>
struct Key2_Value_T {
  const char* key;
  std::size_t len;  // of the key
  T value;
};

}  // namespace platform
