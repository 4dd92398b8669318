#pragma once
// Reads what the ZFS tools print with -H -p: one line each, columns divided by one tab, nothing quoted.
// Pure functions, no state.

#include <ace/Basic_Types.h>

#include <map>
#include <string>
#include <vector>

namespace zfs {

// The lines of `zfs get -Hp -o property,value`. False, with `values` untouched, when one of them has no tab
// between a name and a value.
bool parse_properties(const std::vector<std::string>& lines, std::map<std::string, std::string>& values);

// on, yes, off, no. False, with `value` untouched, for anything else.
bool parse_boolean(const std::string& text, bool& value);

// Decimal digits only, up to 2^64-1. False, with `value` untouched, for anything else.
bool parse_unsigned(const std::string& text, ACE_UINT64& value);

}  // namespace zfs
