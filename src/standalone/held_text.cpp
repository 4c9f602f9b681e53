#include "standalone/held_text.h"

#include "base/text.h"

#include <cstring>

namespace cbsd::standalone {

void write_or_hold(HeldText& slot, TextWriter write, const char* value) {
    slot.held = write(value) == 0;
    if (slot.held) base::copy_text(slot.text, sizeof slot.text, value);
}

void read_or_held(HeldText& slot, TextWriter write, TextReader read, char* buffer, int size) {
    if (!buffer || size <= 0) return;
    std::memset(buffer, 0, static_cast<size_t>(size));
    if (slot.held && write(slot.text) == 0) {
        base::copy_text(buffer, static_cast<size_t>(size), slot.text);
        return;
    }
    slot.held = false;
    read(buffer, size);
}

}  // namespace cbsd::standalone
