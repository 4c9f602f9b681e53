#include "standalone/transmit_deadline.h"

#include "base/clock.h"
#include "base/utc_time.h"
#include "config/schema.h"
#include "config/uci_store.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace cbsd::standalone {

namespace {

constexpr int64_t kNoDeadline = INT64_MIN;
// No deadline, and none may be held until the fence is lifted: the state of
// a worker that outlived its stop.  Lies before every instant, like none.
constexpr int64_t kFenced = INT64_MIN + 1;
constexpr long kLongestLeadSeconds = 86400;

std::atomic<int64_t> g_deadlineMs{kNoDeadline};

// Counts changes of the deadline for whoever waits on them; -1 when the
// kernel gave none, and the waiter then sleeps its whole time out.
int change_signal() {
    static const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return fd;
}

void signal_change() {
    uint64_t one = 1;
    if (change_signal() >= 0 && write(change_signal(), &one, sizeof one) < 0) {
        // The counter is full only when nobody waits: nothing to wake.
    }
}

void store_deadline(int64_t deadlineMs) {
    g_deadlineMs.store(deadlineMs);
    signal_change();
}

}  // namespace

int64_t transmit_deadline_from(int64_t expireEpoch, int64_t wallAtReceipt, int64_t receivedMs,
                               uint32_t maxLeadSeconds) {
    int64_t lead = std::min(expireEpoch - wallAtReceipt, static_cast<int64_t>(maxLeadSeconds));
    return receivedMs + lead * 1000 + kTransmitGraceMs;
}

int64_t lead_reference(int64_t wallSeconds, const int64_t* sasSeconds) {
    return sasSeconds ? std::max(wallSeconds, *sasSeconds) : wallSeconds;
}

void hold_deadline_of_reply(const char* transmitExpireTime, const int64_t* sasNow) {
    int64_t expire = 0;
    if (!base::parse_utc_time(transmitExpireTime, &expire)) return;
    int64_t reference = lead_reference(base::wall_seconds(), sasNow);
    hold_transmit_deadline(transmit_deadline_from(expire, reference, base::monotonic_ms64(),
                                                  max_transmit_lead_seconds()));
}

uint32_t max_transmit_lead_seconds() {
    char value[16] = {};
    config::config_get(config::kSasConfigPath, config::schema::kMaxTransmitLead, value,
                       sizeof value);
    char* end = nullptr;
    long seconds = std::strtol(value, &end, 10);
    if (end == value || *end != '\0' || seconds < 1 || seconds > kLongestLeadSeconds)
        return kDefaultMaxTransmitLeadSeconds;
    return static_cast<uint32_t>(seconds);
}

namespace {

// Replaces the deadline unless it is fenced; one atomic step, so a fence
// set at any moment is never overwritten.
void store_unless_fenced(int64_t value) {
    int64_t current = g_deadlineMs.load();
    while (current != kFenced && !g_deadlineMs.compare_exchange_weak(current, value)) {
    }
    signal_change();
}

}  // namespace

void hold_transmit_deadline(int64_t deadlineMs) { store_unless_fenced(deadlineMs); }

void drop_transmit_deadline() { store_unless_fenced(kNoDeadline); }

void fence_transmit_deadline() {
    g_deadlineMs.store(kFenced);
    signal_change();
}

void lift_transmit_deadline_fence() { store_deadline(kNoDeadline); }

bool transmit_deadline_fenced() { return g_deadlineMs.load() == kFenced; }

void end_transmission_within(int64_t nowMs, uint32_t withinMs) {
    int64_t latest = nowMs + withinMs;
    int64_t held = g_deadlineMs.load();
    // A drop or a fence in between must stay as it is.
    while (held != kNoDeadline && held != kFenced && held > latest) {
        if (g_deadlineMs.compare_exchange_weak(held, latest)) {
            signal_change();
            return;
        }
    }
}

int64_t transmit_deadline_ms_left(int64_t nowMs) {
    int64_t deadline = g_deadlineMs.load();
    if (deadline == kNoDeadline || deadline == kFenced) return -1;
    return deadline > nowMs ? deadline - nowMs : 0;
}

void wait_for_deadline_change(uint32_t timeoutMs) {
    int fd = change_signal();
    if (fd < 0) {
        usleep(timeoutMs * 1000u);
        return;
    }
    pollfd waiting{fd, POLLIN, 0};
    if (poll(&waiting, 1, static_cast<int>(timeoutMs)) > 0) {
        uint64_t count = 0;
        if (read(fd, &count, sizeof count) < 0) {
            // Another waiter took it: the change was seen.
        }
    }
}

bool transmit_deadline_held(int64_t nowMs) {
    int64_t deadline = g_deadlineMs.load();
    return deadline != kNoDeadline && deadline != kFenced && nowMs < deadline;
}

}  // namespace cbsd::standalone
