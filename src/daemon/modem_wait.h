// Start-up's wait for the modem manager: the device profile, the first-run
// tag and the serial number come only from a product query the modem manager
// answered.  A router that boots its modem slowly registers `ubus_lte` after
// the daemon starts; until then every query is refused, and a profile taken
// from that silence would be the catch-all row for good.
#pragma once

#include "modem/modem.h"

#include <cstdint>

namespace cbsd::daemon {

// Between two product queries: the query is one short `ubus` run, so at this
// pace a modem manager that takes minutes costs the router a process every
// 5 s (the supervision loop's own steady cadence) and the daemon answers it
// within 5 s of its registration.
inline constexpr uint32_t kModemPollMs = 5000;
// The pause is taken in steps this long, each checking for a stop request.
inline constexpr uint32_t kModemPollStepMs = 250;

struct ModemWaitHooks {
    bool (*stopped)();      // a stop request ends the wait
    void (*each_poll)();    // runs once per unanswered query (may be nullptr)
};

// Asks until the modem manager answers; true with `info` filled, false when a
// stop request came first.  The first query is the normal start and logs
// nothing; an unanswered one logs one line when the wait starts and one when
// it ends.  Sleeps on the daemon's clock (base/clock.h).
bool wait_for_product_info(modem::ProductInfo& info, const ModemWaitHooks& hooks);

}  // namespace cbsd::daemon
