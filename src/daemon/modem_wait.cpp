#include "daemon/modem_wait.h"

#include "base/clock.h"
#include "base/log.h"

namespace cbsd::daemon {

namespace {

// The pause between two queries; false when a stop request ended it.
bool pause_between_queries(const ModemWaitHooks& hooks) {
    for (uint32_t slept = 0; slept < kModemPollMs; slept += kModemPollStepMs) {
        if (hooks.stopped()) return false;
        base::sleep_ms(kModemPollStepMs);
    }
    return !hooks.stopped();
}

}  // namespace

bool wait_for_product_info(modem::ProductInfo& info, const ModemWaitHooks& hooks) {
    if (modem::read_product_info(info)) return true;
    base::notice_to_syslog(
        "[SAS] the modem manager (ubus_lte) does not answer, start-up waits for it.\n");
    uint32_t started = base::monotonic_seconds();
    for (;;) {
        if (hooks.each_poll) hooks.each_poll();
        if (!pause_between_queries(hooks)) return false;
        if (modem::read_product_info(info)) break;
    }
    base::notice_to_syslog("[SAS] the modem manager (ubus_lte) answers after %u s, start-up goes on.\n",
                           base::monotonic_seconds() - started);
    return true;
}

}  // namespace cbsd::daemon
