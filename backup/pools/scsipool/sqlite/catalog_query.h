#pragma once
// What all statements on the database "scsi_pool_manager" share. Private to this folder. Any thread; nothing
// throws.

#include <ace/Basic_Types.h>

#include <initializer_list>
#include <string>
#include <utility>

#include "backup/pools/scsipool/scsi_pool_sqlite_manager.h"
#include "platform/database/database.h"
#include "platform/json/json_spirit.h"

namespace scsi_pool {

// The database's schema text (scsi_pool_manager.sql).
extern const char* const CATALOG_SCHEMA;

// How the columns of the catalog's tables are read.
extern const database::sql::Query_Result_Handler::Val_Tran_Entry pool_val_trans[];

// A connection; an empty handle after the failure is logged as the caller's.
database::sql::Connection_var catalog_connection(const char* file = __builtin_FILE(),
                                                 int line = __builtin_LINE());

// Runs a change on a connection of its own. `failure` is logged as the caller's when the statement fails,
// unless it is null; a missing connection is logged instead.
bool execute_change(const database::sql::SQL& sql, const char* failure = nullptr,
                    const char* file = __builtin_FILE(), int line = __builtin_LINE());

// Reads the first row, all rows, or whether there is a row. False without a log line when there is no row.
// Results stay untouched unless true is returned.
bool query_first_obj(const database::sql::Select_SQL& sql, json_spirit::Object& obj,
                     const char* file = __builtin_FILE(), int line = __builtin_LINE());
bool query_orm_rows(const database::sql::Select_SQL& sql, json_spirit::Array& arr,
                    const char* file = __builtin_FILE(), int line = __builtin_LINE());
bool check_record_exist(const database::sql::Select_SQL& sql, const char* file = __builtin_FILE(),
                        int line = __builtin_LINE());

// Reads "seq" of the first row, 0 when there is none. False only without a connection.
bool query_first_seq(const database::sql::Select_SQL& sql, ACE_UINT64& seq,
                     const char* file = __builtin_FILE(), int line = __builtin_LINE());

// Makes `sql` the query of LUN snapshots, or of filesystem snapshots, with the pool and the dataset joined.
void init_snapshot_info_sql(database::sql::Select_SQL& sql);
void init_filesystem_snapshot_info_sql(database::sql::Select_SQL& sql);

// Adds equalities of columns with UUIDs, or with values, to the statement's filter, in their order.
void where_uuids(database::sql::Where_SQL& sql,
                 std::initializer_list<std::pair<const char*, std::string>> items);
void where_value(database::sql::Where_SQL& sql, const char* column,
                 const database::sql::Binding_Value& value);
// The condition that a list mode puts on the snapshots' recycle mark.
void where_recycle(database::sql::Where_SQL& sql, SCSI_Pool_Sqlite_Manager::Snapshot_List_Mode mode);

// Is an optional argument given?
inline bool given(const char* text) {
  return text != nullptr && *text != '\0';
}

}  // namespace scsi_pool
