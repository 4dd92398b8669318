#include "platform/database/sql.h"

#include <new>

#include "platform/base/uuid.h"

namespace database::sql {

namespace {

std::string with_alias(const char* name, const char* alias) {
  std::string text = name != nullptr ? name : "";
  if (alias != nullptr && *alias != '\0') text += std::string(" AS ") + alias;
  return text;
}

void append_list(std::string& list, const std::string& item, const char* separator) {
  if (!list.empty()) list += separator;
  list += item;
}

}  // namespace

void SQL::bind(const std::string& name, const Binding_Value& value) {
  parameters_.emplace_back(name, value);
}

void SQL::bind_uuid(const std::string& name, const std::string& uuid) {
  std::string binary;
  if (!platform::uuid_string_to_binary(uuid, binary)) fail("'" + uuid + "' is no UUID");
  bind(name, Binding_Value::blob(binary));
}

void SQL::bind_uuid(const std::string& name, const char* uuid) {
  bind_uuid(name, std::string(uuid != nullptr ? uuid : ""));
}

void SQL::fail(const std::string& error) {
  if (error_.empty()) error_ = error;
}

bool SQL::text(std::string& text, std::string& error) const {
  error = error_;
  return error.empty() && build(text, error);
}

std::string SQL::add_parameter(const Binding_Value& value) {
  std::string name = ":_" + std::to_string(parameters_.size());
  bind(name, value);
  return name;
}

std::string SQL::add_uuid_parameter(const std::string& uuid) {
  std::string name = ":_" + std::to_string(parameters_.size());
  bind_uuid(name, uuid);
  return name;
}

void Filter_SQL::add(const char* column, const char* comparison, const std::string& parameter) {
  append_list(text_, std::string(column) + comparison + parameter, " AND ");
}

void Filter_SQL::add_key_uuid_eq_item(const char* column, const std::string& uuid) {
  add(column, " = ", statement_.add_uuid_parameter(uuid));
}

void Filter_SQL::add_kv_eq_item(const char* column, const Binding_Value& value) {
  add(column, " = ", statement_.add_parameter(value));
}

void Filter_SQL::add_kv_item(const char* column, const Binding_Value& value, Operator comparison) {
  add(column, comparison == OP_LESS_OR_EQUAL ? " <= " : " >= ", statement_.add_parameter(value));
}

void Where_SQL::where(const char* condition, bool append) {
  if (append && !condition_.empty())
    condition_ = "(" + condition_ + ") AND (" + condition + ")";
  else
    condition_ = condition;
}

Filter_SQL* Where_SQL::and_filter() {
  if (!filter_) filter_.reset(new (std::nothrow) Filter_SQL(*this));
  if (!filter_) fail("out of memory");
  return filter_.get();
}

std::string Where_SQL::where_clause() const {
  const bool filtered = filter_ && !filter_->text().empty();
  if (condition_.empty()) return filtered ? " WHERE " + filter_->text() : "";
  return " WHERE (" + condition_ + ")" + (filtered ? " AND " + filter_->text() : "");
}

Select_SQL::Select_SQL(const char* table, const char* alias) {
  if (table != nullptr) this->table(table, alias);
}

void Select_SQL::table(const char* name, const char* alias) {
  table_ = with_alias(name, alias);
}

void Select_SQL::add_join(const char* kind, const char* name, const char* alias, const char* on) {
  joins_ += std::string(kind) + with_alias(name, alias) + " ON " + on;
}

void Select_SQL::join(const char* name, const char* alias, const char* on) {
  add_join(" JOIN ", name, alias, on);
}

void Select_SQL::left_join(const char* name, const char* alias, const char* on) {
  add_join(" LEFT JOIN ", name, alias, on);
}

void Select_SQL::select(const char* columns) {
  columns_ = columns;
}

void Select_SQL::add_key(const char* column, const char* alias) {
  append_list(columns_, with_alias(column, alias), ", ");
}

void Select_SQL::limit(std::int64_t rows) {
  if (rows < 1 || limit_) return;
  limit_ = true;
  bind(":_limit", rows);
}

void Select_SQL::offset(std::int64_t rows) {
  if (rows < 1 || offset_) return;
  offset_ = true;
  bind(":_offset", rows);
}

bool Select_SQL::build(std::string& text, std::string& error) const {
  if (table_.empty()) {
    error = "a select names no table";
    return false;
  }
  text = distinct_ ? "SELECT DISTINCT " : "SELECT ";
  text += columns_.empty() ? "*" : columns_;
  text += " FROM " + table_ + joins_ + where_clause();
  if (!order_by_.empty()) text += " ORDER BY " + order_by_ + (descending_ ? " DESC" : " ASC");
  // SQLite takes an offset only after a limit; -1 is no limit.
  if (limit_) text += " LIMIT :_limit";
  if (offset_) text += limit_ ? " OFFSET :_offset" : " LIMIT -1 OFFSET :_offset";
  return true;
}

void Insert_SQL::add(const char* column, const std::string& parameter) {
  append_list(columns_, column, ", ");
  append_list(values_, parameter, ", ");
}

void Insert_SQL::value(const char* column, const Binding_Value& value, std::nullptr_t) {
  add(column, add_parameter(value));
}

void Insert_SQL::value_uuid(const char* column, const std::string& uuid) {
  add(column, add_uuid_parameter(uuid));
}

bool Insert_SQL::build(std::string& text, std::string& error) const {
  if (columns_.empty()) {
    error = "an insert into '" + table_ + "' has no column";
    return false;
  }
  text = "INSERT INTO " + table_ + " (" + columns_ + ") VALUES (" + values_ + ")";
  return true;
}

void Update_SQL::set(const char* column, const Binding_Value& value, std::nullptr_t) {
  append_list(columns_, std::string(column) + " = " + add_parameter(value), ", ");
}

bool Update_SQL::build(std::string& text, std::string& error) const {
  if (columns_.empty()) {
    error = "an update of '" + table_ + "' sets no column";
    return false;
  }
  text = "UPDATE " + table_ + " SET " + columns_ + where_clause();
  return true;
}

bool Delete_SQL::build(std::string& text, std::string&) const {
  text = "DELETE FROM " + table_ + where_clause();
  return true;
}

}  // namespace database::sql
