#include "daemon/watchdog_feed.h"

#include "base/clock.h"
#include "base/log.h"
#include "bus/bus.h"

#include <cstdlib>
#include <jansson.h>
#include <unistd.h>

namespace cbsd::daemon {

// The numbers, and why (procd's TIMEOUT is WATCHDOG_TIMEOUT in the init
// script, 30 s):
// - A healthy daemon pings every kWatchdogPingMs (5 s).  The bus thread may
//   be busy meanwhile with one call another thread queued (at most its 10 s
//   limit and 0.2 s) and with the ping's own limit (2 s): two pings are at
//   most about 17 s apart, well inside procd's 30 s.
// - The main thread renews its mark with every pass, command and bus call.
//   Its longest gap while it works: waiting for the gate lock while the guard
//   closes the gates (2 s for the lock, then about seven commands cut at 2 s
//   each: 16 s) followed by a command of its own (10 s limit): 26 s; a
//   worker's stop (8 s), the 1 s pause and a command (10 s): 19 s; the steady
//   sleep: 5 s.  kLoopStallMs (45 s) leaves 19 s for a slow router.
// - The guard checks at least once a second; a check that closes the gates
//   waits at most 2 s for the lock and runs commands cut at 2 s, each
//   renewing its mark: 5 s at most.  kGuardStallMs is three times that.
// A daemon stopped as a whole (SIGSTOP) stops pinging at once: procd acts
// 25 to 30 s later.  A stalled loop stops the pings 45 to 50 s after its
// last step, and procd acts 30 s after the last ping.

namespace {

constexpr int kCallLimitMs = 2000;

base::ProgressMark g_loopMark;
base::ProgressMark g_guardMark;

// Bus thread only.
Stall g_reportedStall = Stall::kNone;
bool g_pingFailing = false;

enum class Identity { kUnknown, kWatched, kNotWatched };
Identity g_identity = Identity::kUnknown;
WatchedInstance g_watched;

const char* thread_name(Stall stall) {
    return stall == Stall::kLoop ? "supervision loop" : "transmit guard";
}

void report_stall(Stall stall, int64_t now_ms) {
    if (stall == g_reportedStall) return;
    if (stall == Stall::kNone) {
        base::notice("[SAS] the supervision loop and the transmit guard make progress again, "
                     "procd's watchdog is fed again.\n");
    } else {
        const base::ProgressMark& mark = stall == Stall::kLoop ? g_loopMark : g_guardMark;
        base::error("[SAS] the %s made no progress for %lld s, procd's watchdog is no longer fed.\n",
                    thread_name(stall), static_cast<long long>((now_ms - mark.last_ms()) / 1000));
    }
    g_reportedStall = stall;
}

void report_ping(bool fed) {
    if (fed == !g_pingFailing) return;
    g_pingFailing = !fed;
    if (fed)
        base::notice("[SAS] procd's watchdog takes the pings again.\n");
    else
        base::error("[SAS] procd's watchdog did not take a ping.\n");
}

std::string ping_arguments(const WatchedInstance& watched) {
    json_t* arguments = json_pack("{s:s, s:s}", "name", watched.service.c_str(), "instance",
                                  watched.instance.c_str());
    char* text = arguments ? json_dumps(arguments, JSON_COMPACT) : nullptr;
    std::string result = text ? text : "";
    free(text);
    json_decref(arguments);
    return result;
}

// Only name and instance: procd keeps the mode and timeout of the init
// script, and a ping never switches the watchdog off.
bool ping_procd(const WatchedInstance& watched) {
    std::string arguments = ping_arguments(watched);
    if (arguments.empty()) return false;
    return bus::call("service", "watchdog", arguments.c_str(), kCallLimitMs).end ==
           bus::CallEnd::kAnswered;
}

// An answer decides; no connection or no answer yet asks again next turn.
void look_up_this_process() {
    bus::CallResult listed = bus::call("service", "list", nullptr, kCallLimitMs);
    if (listed.end == bus::CallEnd::kNoConnection || listed.end == bus::CallEnd::kTimedOut ||
        listed.end == bus::CallEnd::kNoBus)
        return;
    if (listed.end != bus::CallEnd::kAnswered ||
        find_watched_instance(listed.reply, static_cast<long>(getpid()), g_watched) !=
            Lookup::kWatched) {
        g_identity = Identity::kNotWatched;
        return;
    }
    g_identity = Identity::kWatched;
    base::notice("[SAS] procd's watchdog watches %s/%s (%d s): fed every %d s while the "
                 "supervision loop and the transmit guard make progress.\n",
                 g_watched.service.c_str(), g_watched.instance.c_str(), g_watched.timeout_s,
                 kWatchdogPingMs / 1000);
}

void feed_turn() {
    if (g_identity == Identity::kUnknown) look_up_this_process();
    if (g_identity == Identity::kWatched) feed_watchdog(base::monotonic_ms64(), g_watched, ping_procd);
}

bool pid_matches(json_t* instance, long pid) {
    json_t* running = json_object_get(instance, "pid");
    return json_is_integer(running) && json_integer_value(running) == pid;
}

// procd lists the watchdog only when its mode is not 0 (disabled).
int watchdog_timeout(json_t* instance) {
    json_t* watchdog = json_object_get(instance, "watchdog");
    json_t* mode = json_object_get(watchdog, "mode");
    json_t* timeout = json_object_get(watchdog, "timeout");
    if (!json_is_integer(mode) || json_integer_value(mode) == 0 || !json_is_integer(timeout))
        return 0;
    return static_cast<int>(json_integer_value(timeout));
}

}  // namespace

base::ProgressMark& loop_mark() { return g_loopMark; }
base::ProgressMark& guard_mark() { return g_guardMark; }

Stall stalled_thread(int64_t now_ms, int64_t loop_ms, int64_t guard_ms) {
    if (now_ms - loop_ms > kLoopStallMs) return Stall::kLoop;
    if (guard_ms != 0 && now_ms - guard_ms > kGuardStallMs) return Stall::kGuard;
    return Stall::kNone;
}

Lookup find_watched_instance(const std::string& reply, long pid, WatchedInstance& found) {
    json_t* services = json_loads(reply.c_str(), JSON_DISABLE_EOF_CHECK, nullptr);
    if (!json_is_object(services)) {
        json_decref(services);
        return Lookup::kUnreadable;
    }
    Lookup outcome = Lookup::kNotWatched;
    const char* service_name = nullptr;
    json_t* service = nullptr;
    json_object_foreach(services, service_name, service) {
        const char* instance_name = nullptr;
        json_t* instance = nullptr;
        json_object_foreach(json_object_get(service, "instances"), instance_name, instance) {
            if (!pid_matches(instance, pid)) continue;
            found = {service_name, instance_name, watchdog_timeout(instance)};
            if (found.timeout_s > 0) outcome = Lookup::kWatched;
        }
    }
    json_decref(services);
    return outcome;
}

void feed_watchdog(int64_t now_ms, const WatchedInstance& watched,
                   bool (*ping)(const WatchedInstance&)) {
    Stall stall = stalled_thread(now_ms, g_loopMark.last_ms(), g_guardMark.last_ms());
    report_stall(stall, now_ms);
    if (stall == Stall::kNone) report_ping(ping(watched));
}

void reset_watchdog_feed() {
    g_reportedStall = Stall::kNone;
    g_pingFailing = false;
}

void start_watchdog_feed() {
    base::watch_this_thread(&g_loopMark);
    bus::every(kWatchdogPingMs, feed_turn);
}

void watch_guard_thread() { base::watch_this_thread(&g_guardMark); }

}  // namespace cbsd::daemon
