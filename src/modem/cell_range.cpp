#include "modem/cell_range.h"

#include "base/clock.h"
#include "base/log.h"
#include "modem/lte_info.h"
#include "modem/modem.h"

#include <cstdint>

namespace cbsd::modem {

namespace {

constexpr uint32_t kPollIntervalMs = 500;

// A zero or negative time-out never runs out.
bool timed_out(uint32_t start, int timeout_s) {
    if (timeout_s <= 0) return false;
    uint32_t elapsed = base::monotonic_seconds() - start;
    return elapsed > static_cast<uint32_t>(timeout_s);
}

bool plausible(int frequency, int bandwidth) {
    return frequency >= 1 && frequency < 50000 && bandwidth >= 1 && bandwidth < 21;
}

}  // namespace

int wait_for_lte(int timeout_s) {
    uint32_t start = base::monotonic_seconds();
    for (;;) {
        renew_lte_info();  // each round waits for a change: it needs its own reply
        // The frequency is only worth asking for once the modem is attached.
        if (is_lte_connected() && get_dl_frequency() >= 1) return 0;
        if (timed_out(start, timeout_s)) return -1;
        base::sleep_ms(kPollIntervalMs);
    }
}

int wait_for_cell_range(int timeout_s, CellRange& range) {
    uint32_t start = base::monotonic_seconds();
    for (;;) {
        renew_lte_info();  // each round waits for a change: it needs its own reply
        int frequency = get_dl_frequency();
        int bandwidth = get_bandwidth();
        bool attached = is_lte_connected();
        if (attached && plausible(frequency, bandwidth)) {
            base::notice("[SAS] LTE accesses network success.\n");
            range = compute_cell_range(frequency, bandwidth);
            return 0;
        }
        if (timed_out(start, timeout_s)) return -1;
        base::sleep_ms(kPollIntervalMs);
    }
}

bool read_cell_range(CellRange& range) {
    int bandwidth = get_bandwidth();
    int frequency = get_dl_frequency();
    // A modem manager that refused says nothing about the cell: the range
    // stored for it stays.
    if (lte_info_refused()) {
        base::notice("[SAS] the modem manager did not answer, the cell range stays.\n");
        return false;
    }
    range = compute_cell_range(frequency, bandwidth);
    return true;
}

}  // namespace cbsd::modem
