#pragma once
// UUIDs as text (8-4-4-4-12 hexadecimal digits) and as their 16 bytes. Any thread.

#include <cstddef>
#include <string>

namespace platform {

// A fresh random UUID (version 4). False, with `uuid` untouched, when the system gives no random bytes.
bool uuid_string(std::string& uuid, bool upper);

// "00000000-0000-0000-0000-000000000000".
const std::string& zero_uuid();

// Exactly 36 characters, hexadecimal digits of either case and the four dashes in their places. No braces.
bool is_uuid(const std::string& text);

// The 16 bytes of a UUID text. False, with `binary` untouched, when is_uuid(text) is false.
bool uuid_string_to_binary(const std::string& text, std::string& binary);

// The lower-case text of 16 bytes. False, with `text` untouched, when `size` is not 16 or `data` is null.
bool uuid_binary_to_string(const void* data, std::size_t size, std::string& text);

// The name-based UUID (version 5, SHA-1) of `name` in the name space `ns_text`, lower case. Empty when
// `ns_text` is no UUID.
std::string uuid_v5(const std::string& ns_text, const std::string& name);

}  // namespace platform
