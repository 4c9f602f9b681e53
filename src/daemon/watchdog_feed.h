// procd's instance watchdog: when the init script asks procd to watch the
// daemon (`procd_set_param watchdog`), the bus thread pings procd (the
// `service` object's `watchdog` method) every few seconds, but only while the
// supervision loop and the transmit guard both make progress.  A daemon
// whose loop or guard hangs stops pinging; procd then stops it (SIGTERM,
// SIGKILL after term_timeout) and starts it again, and the new instance
// closes the gates first, as every start with SAS on does.
//
// Built without libubus there is no bus thread and nothing is fed; the
// package always has libubus, so its init script asks for the watchdog.
#pragma once

#include "base/progress.h"

#include <cstdint>
#include <string>

namespace cbsd::daemon {

// How often the bus thread pings, and how long each watched thread may go
// without a finished step before it counts as stalled (watchdog_feed.cpp
// derives the numbers).
inline constexpr int kWatchdogPingMs = 5000;
inline constexpr int64_t kLoopStallMs = 45000;
inline constexpr int64_t kGuardStallMs = 15000;

// The marks of the two watched threads.  The main thread's (start-up, then
// the supervision loop) is renewed by every pass, every command it starts
// and every bus call it makes; the guard's by every check.
base::ProgressMark& loop_mark();
base::ProgressMark& guard_mark();

enum class Stall { kNone, kLoop, kGuard };

// Which watched thread, if any, has made no progress for longer than its
// bound at now_ms.  A guard mark of 0 (the guard not started yet) does not
// count: until it starts, start-up runs on the main thread, whose mark
// covers it.
Stall stalled_thread(int64_t now_ms, int64_t loop_ms, int64_t guard_ms);

// This process as procd knows it.
struct WatchedInstance {
    std::string service;
    std::string instance;
    int timeout_s = 0;
};

enum class Lookup {
    kWatched,     // an instance with this pid, procd's watchdog on
    kNotWatched,  // no instance with this pid, or one without a watchdog
    kUnreadable,  // the reply is no service list
};

// Reads the reply of `ubus call service list` for the instance whose pid is
// pid.
Lookup find_watched_instance(const std::string& reply, long pid, WatchedInstance& found);

// One turn of the bus thread's task, with the ping as a parameter so that
// tests can count pings: pings while neither thread is stalled, and logs once
// when feeding stops, once when it starts again and once per streak of
// failed pings.  ping returns true when procd took it.
void feed_watchdog(int64_t now_ms, const WatchedInstance& watched,
                   bool (*ping)(const WatchedInstance&));
// Forgets what feed_watchdog logged (tests).
void reset_watchdog_feed();

// Makes the calling thread the loop's watched thread and registers the task
// that looks this process up in procd's service list and then feeds the
// watchdog.  Before bus::start().
void start_watchdog_feed();
// Called once by the guard thread as it starts.
void watch_guard_thread();

}  // namespace cbsd::daemon
