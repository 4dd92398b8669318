#pragma once
// Who may really use an export. The recorded initiators do not tell: a target in demo mode ignores them.

#include <string>

#include "daemon/router.h"
#include "platform/json/json_spirit.h"
#include "platform/lio/lio_types.h"

namespace scsipoold {

// Adds "demo_mode" to each record of an exported LUN or snapshot ("lun_num", "type", "target"), as the kernel
// has it: true means that every initiator may write. A record whose target the kernel does not have gets
// none.
void add_demo_mode(json_spirit::Array& records);

// Were these initiators really added to, or removed from, an exported LUN or a snapshot's clone? Demo mode
// applies nothing, and success would be taken for protection: false then, with the refusal in `reply`.
bool check_acls_changed(const Request& request, const std::string& pool_id, const std::string& volume_id,
                        const LIO_ACLs& acls, bool add, Reply& reply);

}  // namespace scsipoold
