#pragma once
// Builders of SQL statements. A builder puts the text together and keeps the values beside it; values are
// always bound, never pasted into the text. Table names, column names, conditions and column lists go into
// the text as they stand and must come from the program, not from outside.
//
// Builders never fail on the way. What is wrong with a statement (a text that is no UUID, an update without
// columns) shows when it is run: Connection::execute() and Legacy_Cursor refuse it, with the cause in the
// log. One builder is used by one thread.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/database/binding_value.h"

namespace database::sql {

// What all statements have: bound values and a text.
class SQL {
 public:
  using Parameters = std::vector<std::pair<std::string, Binding_Value>>;

  virtual ~SQL() = default;

  // Binds a named parameter, such as ":uuid", of a raw condition.
  void bind(const std::string& name, const Binding_Value& value);
  // The same with a UUID given as text, bound in its binary form.
  void bind_uuid(const std::string& name, const std::string& uuid);
  void bind_uuid(const std::string& name, const char* uuid);

  // The statement's text. False with the cause in `error` when there is none to run.
  bool text(std::string& text, std::string& error) const;
  const Parameters& parameters() const { return parameters_; }

 protected:
  friend class Filter_SQL;

  // Keeps a value under a name of its own and returns the name.
  std::string add_parameter(const Binding_Value& value);
  std::string add_uuid_parameter(const std::string& uuid);
  // Notes a fault; the statement will not run.
  void fail(const std::string& error);

 private:
  virtual bool build(std::string& text, std::string& error) const = 0;

  Parameters parameters_;
  std::string error_;  // the first fault found while the statement was put together
};

// Conditions joined with AND, in the order added. A column may carry a table alias ("s.uuid") or be a result
// alias. Belongs to its statement.
class Filter_SQL {
 public:
  enum Operator { OP_LESS_OR_EQUAL = 3, OP_GREATER_OR_EQUAL = 5 };

  explicit Filter_SQL(SQL& statement) : statement_(statement) {}

  void add_key_uuid_eq_item(const char* column, const std::string& uuid);
  void add_kv_eq_item(const char* column, const Binding_Value& value);
  // column <= value or column >= value.
  void add_kv_item(const char* column, const Binding_Value& value, Operator comparison);

  const std::string& text() const { return text_; }

 private:
  void add(const char* column, const char* comparison, const std::string& parameter);

  SQL& statement_;
  std::string text_;
};

// A statement with a WHERE clause: a raw condition, a filter, both (joined with AND) or none.
class Where_SQL : public SQL {
 public:
  // Sets the raw condition; with `append` the condition is joined to the one set before with AND.
  void where(const char* condition, bool append = false);
  // The statement's filter, made at the first call. Null only when memory is out; the statement will not run
  // then.
  Filter_SQL* and_filter();

 protected:
  std::string where_clause() const;

 private:
  std::string condition_;
  std::unique_ptr<Filter_SQL> filter_;
};

class Select_SQL : public Where_SQL {
 public:
  explicit Select_SQL(const char* table = nullptr, const char* alias = nullptr);

  // Sets the table that rows come from. `alias` may be null.
  void table(const char* name, const char* alias = nullptr);
  void join(const char* name, const char* alias, const char* on);
  void left_join(const char* name, const char* alias, const char* on);
  // The result columns, verbatim. Without them (and without keys) every column of the joined tables is
  // returned.
  void select(const char* columns);
  // Adds one result column or expression under an alias (null: its own name).
  void add_key(const char* column, const char* alias = nullptr);
  void distinct(bool distinct) { distinct_ = distinct; }
  void order_by(const char* column) { order_by_ = column; }
  void desc(bool descending) { descending_ = descending; }
  // Values below 1 set no limit or offset. Each is set once.
  void limit(std::int64_t rows);
  void offset(std::int64_t rows);

 private:
  bool build(std::string& text, std::string& error) const override;
  void add_join(const char* kind, const char* name, const char* alias, const char* on);

  std::string table_;
  std::string joins_;
  std::string columns_;
  std::string order_by_;
  bool distinct_ = false;
  bool descending_ = false;
  bool limit_ = false;
  bool offset_ = false;
};

class Insert_SQL : public SQL {
 public:
  explicit Insert_SQL(const char* table) : table_(table) {}

  // Columns are inserted in the order of the calls. The last argument is there for callers that pass it.
  void value(const char* column, const Binding_Value& value, std::nullptr_t = nullptr);
  void value_uuid(const char* column, const std::string& uuid);

 private:
  bool build(std::string& text, std::string& error) const override;
  void add(const char* column, const std::string& parameter);

  std::string table_;
  std::string columns_;
  std::string values_;
};

class Update_SQL : public Where_SQL {
 public:
  explicit Update_SQL(const char* table) : table_(table) {}

  void set(const char* column, const Binding_Value& value, std::nullptr_t = nullptr);

 private:
  bool build(std::string& text, std::string& error) const override;

  std::string table_;
  std::string columns_;
};

class Delete_SQL : public Where_SQL {
 public:
  explicit Delete_SQL(const char* table) : table_(table) {}

 private:
  bool build(std::string& text, std::string& error) const override;

  std::string table_;
};

}  // namespace database::sql
