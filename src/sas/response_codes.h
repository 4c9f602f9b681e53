#pragma once

#include <cstdint>

namespace cbsd::sas {

// The codes the StandAlone worker acts on by name.
inline constexpr int32_t kSuccess = 0;
inline constexpr int32_t kDeregister = 105;
inline constexpr int32_t kGrantConflict = 401;
inline constexpr int32_t kTerminatedGrant = 500;
inline constexpr int32_t kSuspendedGrant = 501;
inline constexpr int32_t kUnsyncOpParam = 502;

// "SUCCESS", "DEREGISTER", ...; "UNKNOWN" for any code not in the table.
const char* responseCode_name(int32_t code);

}  // namespace cbsd::sas
