// A value the worker wrote to /etc/config/sas but the store would not take
// (full, read-only): held in memory and used in place of the stored one until
// a later write lands, so that a failing store never sends the worker back to
// a decision it has already made.
#pragma once

#include <cstddef>

namespace cbsd::standalone {

struct HeldText {
    bool held = false;
    char text[32] = {};
};

using TextWriter = unsigned (*)(const char* value);  // 1 when the value landed
using TextReader = void (*)(char* buffer, int size);

// Writes the value; holds it when the write did not land, drops a held one
// when it did.
void write_or_hold(HeldText& slot, TextWriter write, const char* value);

// Fills buffer (cleared to size) with the held value, after trying once more
// to write it, or else with the stored one.
void read_or_held(HeldText& slot, TextWriter write, TextReader read, char* buffer, int size);

}  // namespace cbsd::standalone
