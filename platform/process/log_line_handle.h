#pragma once

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>

#include <memory>

#include "platform/process/line_reactor.h"

// Logs every line that comes out of `handle` until its end, at `priority`, after `prefix` (may be null), on
// the reactor's thread. With a callback the lines go to it, as records, in place of the log. With `close` the
// handle belongs to the reactor from then on, which closes it at its end; without, the reactor reads a
// duplicate and the caller may close its own at any time.
// False with errno on failure; the handle is then still the caller's.
bool log_line_handle(ACE_Log_Priority priority, ACE_HANDLE handle, bool close, Line_Reactor* reactor,
                     const char* prefix, std::shared_ptr<ACE_Log_Msg_Callback> callback);
