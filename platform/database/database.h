#pragma once
// All of the database layer.

#include "platform/database/connection.h"
#include "platform/database/legacy_cursor.h"
#include "platform/database/legacy_manager.h"
#include "platform/database/query_result_handler.h"
#include "platform/database/sql.h"
