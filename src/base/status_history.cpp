#include "base/status_history.h"

#include "base/clock.h"

#include <mutex>

namespace cbsd::base {

namespace {

// Written by every publishing thread, read by the bus thread's copy.
std::mutex g_historyLock;
HistoryEntry g_ring[kHistoryCapacity];
size_t g_next = 0;    // where the next entry goes
size_t g_count = 0;   // entries held, at most kHistoryCapacity

}  // namespace

void record_history(HistoryKind kind, uint8_t value, uint8_t flags, int32_t code) {
    uint32_t time = static_cast<uint32_t>(wall_seconds());
    std::lock_guard<std::mutex> hold(g_historyLock);
    g_ring[g_next] = HistoryEntry{time, code, kind, value, flags, 0};
    g_next = (g_next + 1) % kHistoryCapacity;
    if (g_count < kHistoryCapacity) ++g_count;
}

std::vector<HistoryEntry> history_copy(int64_t now) {
    std::vector<HistoryEntry> entries;
    std::lock_guard<std::mutex> hold(g_historyLock);
    entries.reserve(g_count);
    size_t first = (g_next + kHistoryCapacity - g_count) % kHistoryCapacity;
    for (size_t i = 0; i < g_count; ++i) {
        const HistoryEntry& entry = g_ring[(first + i) % kHistoryCapacity];
        if (static_cast<int64_t>(entry.time) + kHistorySeconds >= now) entries.push_back(entry);
    }
    return entries;
}

void reset_history() {
    std::lock_guard<std::mutex> hold(g_historyLock);
    g_next = 0;
    g_count = 0;
}

}  // namespace cbsd::base
