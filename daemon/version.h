#pragma once

namespace scsipoold {

constexpr const char* VERSION = SCSIPOOL_VERSION;

}  // namespace scsipoold
