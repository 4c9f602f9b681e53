#include "core/command.h"

#include <cstdio>
#include <cstring>

namespace cbsd::core {

char* run_command(const char* command, char* buffer, int capacity) {
    FILE* pipe = popen(command, "r");
    if (!pipe) return nullptr;
    int total = 0;
    char line[256];
    while (std::fgets(line, sizeof line, pipe)) {
        int length = static_cast<int>(std::strlen(line));
        if (total + length < capacity) {
            std::memcpy(buffer + total, line, static_cast<size_t>(length) + 1);
            total += length;
        } else {
            // The rest of the output is dropped: only whole lines are kept.
            buffer[total] = '\0';
            break;
        }
    }
    pclose(pipe);
    return buffer;
}

}  // namespace cbsd::core
