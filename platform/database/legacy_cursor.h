#pragma once
// Runs a select statement and hands out its rows as JSON. The first row is fetched at construction, so eof()
// can be asked at once. A statement that cannot be run, now or on the way, leaves its cause in the log at
// notice priority and makes ok() and every fetch() false. The cursor keeps its connection until it is
// destroyed. One thread. Nothing throws.

#include <string>
#include <vector>

#include "platform/database/connection.h"
#include "platform/database/query_result_handler.h"
#include "platform/json/json_spirit.h"

namespace database::sql {

class Legacy_Cursor {
 public:
  enum Get_Mode {
    GM_ORM_ROW = 4,        // each fetch yields the next row as an object
    GM_ORM_FIRST_ROW = 5,  // the first row as an object; null when there is no row
    GM_ORM_ROWS = 8,       // all rows as an array of objects; an empty array when there is none
  };

  Legacy_Cursor(const Connection_var& connection, const SQL& statement, Get_Mode mode, int flags = 0);
  ~Legacy_Cursor();

  // How columns are translated; a table as Query_Result_Handler describes, which must outlive the cursor.
  // Without it integers come back as integers (not negative: unsigned), text and bytes as strings, NULL as
  // null.
  void val_trans(const Query_Result_Handler::Val_Tran_Entry* table) { translations_ = table; }

  // Reads as the mode says. False, with `value` untouched, after a failure and, with GM_ORM_ROW, at the end.
  bool fetch(json_spirit::Value& value);

  // True when every row has been read without a failure; right after construction: when there is no row.
  bool eof() const { return at_end_; }
  // False after any failure.
  bool ok() const { return !failed_; }

 private:
  Legacy_Cursor(const Legacy_Cursor&) = delete;
  Legacy_Cursor& operator=(const Legacy_Cursor&) = delete;

  struct Column {
    std::string name;
    Query_Result_Handler::Val_Tran_Type translation;
  };

  void step();
  void fail(const std::string& error);
  void read_columns();
  bool read_row(json_spirit::Object& row);
  bool read_value(int index, json_spirit::Value& value);
  bool fetch_row(json_spirit::Value& value);
  bool fetch_all(json_spirit::Value& value);

  Connection_var connection_;
  sqlite3_stmt* statement_ = nullptr;
  std::string text_;
  Get_Mode mode_;
  bool at_end_ = false;
  bool failed_ = false;
  const Query_Result_Handler::Val_Tran_Entry* translations_ = nullptr;
  std::vector<Column> columns_;
};

}  // namespace database::sql
