#include "gating/authorization.h"

#include "base/gate_state.h"
#include "base/log.h"
#include "gating/gates.h"
#include "gating/transmit_power.h"

#include "base/system.h"

#include <chrono>
#include <thread>
#include <mutex>

namespace cbsd::gating {

namespace {

// The supervision loop and the transmit guard both switch the gates; one at a
// time, so that an inspection and the change it leads to are not split.
// Recursive because a switch may be entered again from within (the power
// computation reads through the same layer).
std::recursive_mutex g_gateLock;
using GateHold = std::lock_guard<std::recursive_mutex>;

// The transmit guard's bounds: its gate commands and its wait for the lock
// together stay far inside the minute between the transmit deadline and the
// time the gates must be shut, even with a firewall tool that hangs.
constexpr int kGuardCommandLimitSeconds = 2;
constexpr auto kGuardLockWait = std::chrono::seconds(2);
constexpr auto kGuardLockPoll = std::chrono::milliseconds(10);

void close_all_gates() {
    set_ip_forward(false);
    set_firewall_icmp(false);
    set_bridge_forward(false);
}

void open_all_gates() {
    base::publish_gates_closed(false);
    set_ip_forward(true);
    set_firewall_icmp(true);
    set_bridge_forward(true);
}

}  // namespace

void authorize_device(uint8_t announce) {
    GateHold hold(g_gateLock);
    // The power goes nowhere in this product; computing it keeps the modem
    // and configuration reads of a real radio driver in place.
    compute_transmit_power();
    open_all_gates();
    if (announce) base::notice_to_syslog("[SAS] device has been authorized.\n\n");
}

void unauthorize_device(uint8_t announce) {
    GateHold hold(g_gateLock);
    close_all_gates();
    if (announce) base::notice_to_syslog("[SAS] device has been unauthorized.\n\n");
    // After the announcement: the worker's relinquishment, which waits on
    // this, is logged after it.
    base::publish_gates_closed(true);
}

// Polls for the lock rather than taking it with a time-out: ThreadSanitizer
// does not see the timed lock libstdc++ uses (pthread_mutex_clocklock) and
// would report every unlock of it as an unlock of an unlocked mutex.
static bool lock_within(std::unique_lock<std::recursive_mutex>& hold,
                        std::chrono::milliseconds limit) {
    for (auto waited = std::chrono::milliseconds(0); !hold.try_lock(); waited += kGuardLockPoll) {
        if (waited >= limit) return false;
        std::this_thread::sleep_for(kGuardLockPoll);
    }
    return true;
}

// Forwarding goes first and without the lock: a file write, no process, so
// the device's traffic stops even while the loop holds the lock over a hung
// firewall tool.  The rest waits a bounded time for the lock and then goes
// ahead anyway: every switch inspects before it acts, so closing twice is
// harmless, and each command gets the guard's short limit.
bool close_open_gates() {
    bool forwarding = is_ip_forward_enabled();
    if (forwarding) set_ip_forward(false);
    base::TimeLimitCap cap(kGuardCommandLimitSeconds);
    std::unique_lock<std::recursive_mutex> hold(g_gateLock, std::defer_lock);
    if (!lock_within(hold, kGuardLockWait))
        base::error("[SAS] gate switch still busy, closing the gates alongside it.\n");
    bool open = forwarding || is_firewall_icmp_open() || is_bridge_forward_open();
    if (open) close_all_gates();
    base::publish_gates_closed(true);
    return open;
}

// As close_open_gates, but without its own look first: the stop's window
// before the worker hears of it stays as short as unauthorize_device's.
void unauthorize_device_within_bounds(uint8_t announce) {
    set_ip_forward(false);
    base::TimeLimitCap cap(kGuardCommandLimitSeconds);
    std::unique_lock<std::recursive_mutex> hold(g_gateLock, std::defer_lock);
    if (!lock_within(hold, kGuardLockWait))
        base::error("[SAS] gate switch still busy, closing the gates alongside it.\n");
    close_all_gates();
    if (announce) base::notice_to_syslog("[SAS] device has been unauthorized.\n\n");
    base::publish_gates_closed(true);  // the worker gives its grant back now
}

void recover_network() {
    GateHold hold(g_gateLock);
    open_all_gates();
    base::notice_to_syslog("[SAS] device network has been recovered.\n\n");
}

}  // namespace cbsd::gating
