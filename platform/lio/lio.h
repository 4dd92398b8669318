#pragma once
// The LIO target library: SCSI logical units of the Linux kernel's target, over iSCSI and Fibre Channel.
// Objects are handed out as reference-counted pointers that are null on failure; every failure is logged
// once, with the path and the system's error text. All operations may be called from any thread; changes are
// serialised among threads and, by a lock file, among processes.

#include "platform/lio/lio_backstore.h"
#include "platform/lio/lio_library.h"
#include "platform/lio/lio_lun.h"
#include "platform/lio/lio_names.h"
#include "platform/lio/lio_saved_config.h"
#include "platform/lio/lio_target.h"
#include "platform/lio/lio_types.h"
