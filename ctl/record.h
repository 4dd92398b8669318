#pragma once
// Members of the daemon's records as cells of a table. A member that is not there, or of another type, is
// shown as the text given for it.

#include <string>

#include "platform/json/json_spirit.h"

namespace ctl {

std::string text_of(const json_spirit::Object& record, const char* key, const std::string& missing = "");
std::string size_of(const json_spirit::Object& record, const char* key);  // with a unit
std::string number_of(const json_spirit::Object& record, const char* key, const std::string& missing = "?");
std::string flag_of(const json_spirit::Object& record, const char* key);  // "yes" or "no"

}  // namespace ctl
