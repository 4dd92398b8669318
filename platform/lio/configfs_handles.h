#pragma once
// The objects that the configfs library hands out: thin, over Group and Backstores.

#include "platform/lio/configfs_group.h"
#include "platform/lio/lio_target.h"

namespace lio {

LIO_Backstore_var backstore_handle(const Context_ptr& context, const std::string& backstore);
LIO_Target_Manager_var manager_handle(const Context_ptr& context, LIO_Target_Type type);

}  // namespace lio
