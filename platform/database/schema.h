#pragma once
// A database's schema as SQL text cut into versions. Pure: no database, no log.

#include <string>
#include <vector>

namespace database::sql {

// Cuts the text at its lines "-- version N"; element 0 is version 1, and a line for version 1 may be left
// out. False when the numbers do not follow one another.
bool split_schema(const std::string& text, std::vector<std::string>& versions);

}  // namespace database::sql
