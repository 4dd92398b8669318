#include "platform/database/legacy_cursor.h"

#include <sqlite3.h>

#include "platform/base/uuid.h"

namespace database::sql {

namespace {

using Handler = Query_Result_Handler;

Handler::Val_Tran_Type translation_of(const std::string& column, const Handler::Val_Tran_Entry* table) {
  for (; table != nullptr && table->key != nullptr; ++table) {
    if (column.compare(0, std::string::npos, table->key, table->len) == 0) return table->value.type;
  }
  return Handler::VTT_NONE;
}

std::string bytes_of(sqlite3_stmt* statement, int index) {
  const void* data = sqlite3_column_blob(statement, index);
  const int size = sqlite3_column_bytes(statement, index);
  return data != nullptr ? std::string(static_cast<const char*>(data), static_cast<std::size_t>(size)) : "";
}

json_spirit::Value number_of(sqlite3_int64 number) {
  if (number < 0) return number;
  return static_cast<std::uint64_t>(number);
}

json_spirit::Value plain_value(sqlite3_stmt* statement, int index) {
  switch (sqlite3_column_type(statement, index)) {
    case SQLITE_INTEGER:
      return number_of(sqlite3_column_int64(statement, index));
    case SQLITE_FLOAT:
      return sqlite3_column_double(statement, index);
    case SQLITE_NULL:
      return nullptr;
    default:
      return bytes_of(statement, index);
  }
}

}  // namespace

Legacy_Cursor::Legacy_Cursor(const Connection_var& connection, const SQL& statement, Get_Mode mode, int)
    : connection_(connection), mode_(mode) {
  if (connection_.get() == nullptr) {
    failed_ = true;
    return;
  }
  std::string error;
  statement_ = connection_->prepare(statement, text_, error);
  if (statement_ == nullptr)
    fail(error);
  else
    step();
}

Legacy_Cursor::~Legacy_Cursor() {
  if (statement_ != nullptr) connection_->release(text_, statement_);
}

void Legacy_Cursor::fail(const std::string& error) {
  failed_ = true;
  connection_->log_failure(error);
}

void Legacy_Cursor::step() {
  const int result = sqlite3_step(statement_);
  if (result == SQLITE_DONE)
    at_end_ = true;
  else if (result != SQLITE_ROW)
    fail(sqlite3_errmsg(connection_->handle_));
}

void Legacy_Cursor::read_columns() {
  const int count = sqlite3_column_count(statement_);
  columns_.reserve(static_cast<std::size_t>(count));
  for (int index = 0; index < count; ++index) {
    const std::string name = sqlite3_column_name(statement_, index);
    columns_.push_back({name, translation_of(name, translations_)});
  }
}

bool Legacy_Cursor::read_value(int index, json_spirit::Value& value) {
  const Column& column = columns_[static_cast<std::size_t>(index)];
  const int type = sqlite3_column_type(statement_, index);
  if (column.translation == Handler::VTT_NONE || type == SQLITE_NULL) {
    value = plain_value(statement_, index);
    return true;
  }
  if (column.translation == Handler::VTT_BOOL && type == SQLITE_INTEGER) {
    value = sqlite3_column_int64(statement_, index) != 0;
    return true;
  }
  std::string text;
  if (column.translation == Handler::VTT_UUID_STR && type == SQLITE_BLOB &&
      platform::uuid_binary_to_string(sqlite3_column_blob(statement_, index),
                                      static_cast<std::size_t>(sqlite3_column_bytes(statement_, index)),
                                      text)) {
    value = std::move(text);
    return true;
  }
  fail("column '" + column.name + "' holds a value of another kind in \"" + text_ + "\"");
  return false;
}

bool Legacy_Cursor::read_row(json_spirit::Object& row) {
  if (columns_.empty()) read_columns();
  for (std::size_t index = 0; index < columns_.size(); ++index) {
    if (!read_value(static_cast<int>(index), row[columns_[index].name])) return false;
  }
  return true;
}

bool Legacy_Cursor::fetch_row(json_spirit::Value& value) {
  if (failed_ || at_end_) return false;
  json_spirit::Object row;
  if (!read_row(row)) return false;
  step();
  if (failed_) return false;
  value = std::move(row);
  return true;
}

bool Legacy_Cursor::fetch_all(json_spirit::Value& value) {
  json_spirit::Array rows;
  while (!failed_ && !at_end_) {
    json_spirit::Object row;
    if (!read_row(row)) return false;
    rows.emplace_back(std::move(row));
    step();
  }
  if (failed_) return false;
  value = std::move(rows);
  return true;
}

bool Legacy_Cursor::fetch(json_spirit::Value& value) {
  if (failed_) return false;
  if (mode_ == GM_ORM_ROWS) return fetch_all(value);
  if (mode_ == GM_ORM_ROW) return fetch_row(value);
  json_spirit::Object row;
  if (at_end_) {
    value = nullptr;
    return true;
  }
  if (!read_row(row)) return false;
  value = std::move(row);
  return true;
}

}  // namespace database::sql
