#pragma once
// The daemon's own database, shared by the services.

#include "platform/database/database.h"
#include "platform/json/json_spirit.h"

namespace daemon_database {

// A connection, or an empty handle with a log line. Declares the schema at the first call.
database::sql::Connection_var connect();

// Runs one change. False, logged as "Failed to <what>", when it fails.
bool run(const database::sql::SQL& statement, const char* what);

// Reads all rows. False, logged in the same way, when they cannot be read.
bool rows(const database::sql::SQL& statement, json_spirit::Array& rows, const char* what);

// Inserts one row and gives its number.
bool insert(const database::sql::SQL& statement, std::int64_t& id, const char* what);

// Text of a column, empty when it is NULL or no text; and JSON text of one, as an object.
std::string text_of(const json_spirit::Object& row, const char* column);
json_spirit::Object object_of(const json_spirit::Object& row, const char* column);

}  // namespace daemon_database
