#include "base/failure_streaks.h"

#include "base/clock.h"
#include "base/log.h"

#include <cstdint>
#include <cstring>
#include <mutex>

namespace cbsd::base {

namespace {

struct Streak {
    uint64_t key = 0;  // 0: free
    uint32_t failures = 0;
    int64_t since = 0;
    char name[kStreakNameLimit + 1] = {};
};

// Commands are started by the loop, the guard and the worker.
std::mutex g_streakLock;
Streak g_streaks[kMaxFailingCommands];

// FNV-1a, never 0 (0 marks a free slot).
uint64_t key_of(const char* name) {
    uint64_t hash = 1469598103934665603ull;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(name); *p; ++p) {
        hash ^= *p;
        hash *= 1099511628211ull;
    }
    return hash ? hash : 1;
}

Streak* find(uint64_t key) {
    for (Streak& streak : g_streaks)
        if (streak.key == key) return &streak;
    return nullptr;
}

// The tool's first line, printable ASCII only: its text is not ours.
void first_line(const char* message, char (&out)[kToolMessageLimit + 1]) {
    size_t n = 0;
    for (; message && message[n] && message[n] != '\n' && n < kToolMessageLimit; ++n) {
        unsigned char c = static_cast<unsigned char>(message[n]);
        out[n] = c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '?';
    }
    out[n] = '\0';
}

}  // namespace

void note_command_failure(const char* name, int exit_status, const char* message) {
    uint64_t key = key_of(name);
    {
        std::lock_guard<std::mutex> hold(g_streakLock);
        if (Streak* streak = find(key)) {
            ++streak->failures;
            return;
        }
        if (Streak* free_slot = find(0)) {
            *free_slot = Streak{key, 1, wall_seconds(), {}};
            std::strncpy(free_slot->name, name, kStreakNameLimit);
        }
    }
    // Logged outside the lock: the log's own `logger` run comes back here.
    char text[kToolMessageLimit + 1];
    first_line(message, text);
    error("[SAS] %s failed (exit %d): %s\n", name, exit_status, text);
}

void note_command_success(const char* name) {
    uint64_t key = key_of(name);
    uint32_t failures = 0;
    {
        std::lock_guard<std::mutex> hold(g_streakLock);
        Streak* streak = find(key);
        if (!streak) return;
        failures = streak->failures;
        *streak = Streak{};
    }
    notice("[SAS] %s works again after %u failed runs.\n", name, failures);
}

std::vector<CommandStreak> command_streaks() {
    std::vector<CommandStreak> streaks;
    streaks.reserve(kMaxFailingCommands);  // no allocation under the lock
    std::lock_guard<std::mutex> hold(g_streakLock);
    for (const Streak& streak : g_streaks) {
        if (streak.key == 0) continue;
        CommandStreak copy{{}, streak.failures, streak.since};
        std::memcpy(copy.name, streak.name, sizeof copy.name);
        streaks.push_back(copy);
    }
    return streaks;
}

void reset_command_streaks() {
    std::lock_guard<std::mutex> hold(g_streakLock);
    for (Streak& streak : g_streaks) streak = Streak{};
}

}  // namespace cbsd::base
