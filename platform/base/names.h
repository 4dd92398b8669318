#pragma once
// What a name or a path from outside may be. Names reach shell command lines inside double quotes and tool
// arguments, so everything that a shell, a tool or a filesystem could read as something else is refused.
// `why` is one line for the user, without the name itself; untouched when the result is true. Any thread.

#include <string>

namespace platform {

// The name of one pool, dataset, volume, snapshot or mount folder: 1 to 255 bytes of UTF-8 without control
// characters and without any of " ' \ $ ` / @ ; & | < > ( ) * ?; no leading '-'; not "." or "..". Spaces are
// fine.
bool valid_dataset_name(const std::string& name, std::string& why);

// Names of that kind joined by single slashes ("tank/pools"), without a leading slash.
bool valid_dataset_path(const std::string& path, std::string& why);

// An absolute path of at most 4095 bytes whose parts are each at most 255 bytes and follow the rules above,
// but for '@' which a part may hold. No "." or ".." parts; repeated and trailing slashes are fine.
bool valid_path(const std::string& path, std::string& why);

}  // namespace platform
