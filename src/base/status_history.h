// The last hour of the daemon, kept in memory for the ubus object's
// `history`: state changes, the SAS switch and mode, RadioEnable, the gates
// and every SAS exchange.  A fixed ring (kHistoryCapacity entries of 12
// bytes, 48 KiB at most), so a heartbeat every second still fits an hour;
// nothing is written to flash.  The status report records into it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace cbsd::base {

inline constexpr size_t kHistoryCapacity = 4096;
inline constexpr uint32_t kHistorySeconds = 3600;

enum class HistoryKind : uint8_t {
    kState,    // value: the state's id (cbsd_state.h), 0 for a text outside the table
    kSas,      // value: 0 off, 1 StandAlone, 2 DP
    kRadio,    // value: RadioEnable 0 or 1
    kGates,    // value: per gate two bits from bit 2*gate up: known, open
    kRequest,  // value: the Request; flags: 1 when replied; code: its responseCode
};

inline constexpr uint8_t kSasOff = 0, kSasStandAlone = 1, kSasDp = 2;

struct HistoryEntry {
    uint32_t time;  // wall clock, epoch seconds (unsigned: good until 2106)
    int32_t code;
    HistoryKind kind;
    uint8_t value;
    uint8_t flags;
    uint8_t spare;
};
static_assert(sizeof(HistoryEntry) == 12, "the ring's size is counted in 12-byte entries");

void record_history(HistoryKind kind, uint8_t value, uint8_t flags = 0, int32_t code = 0);

// The entries of the last kHistorySeconds before `now` (and any later, should
// the wall clock have stepped back), oldest first.
std::vector<HistoryEntry> history_copy(int64_t now);

// Empties the ring (tests).
void reset_history();

}  // namespace cbsd::base
