#include "base/text.h"

#include <cstring>

namespace cbsd::base {

namespace {
// The POSIX locale's space class, independent of the process locale.
bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}
}  // namespace

char* trim_right(char* text) {
    if (!text || !*text) return text;
    for (size_t i = std::strlen(text); i > 0 && is_space(text[i - 1]); --i) text[i - 1] = '\0';
    return text;
}

char* trim_left(char* text) {
    if (!text || !*text) return text;
    size_t skip = 0;
    while (text[skip] && is_space(text[skip])) ++skip;
    if (skip) std::memmove(text, text + skip, std::strlen(text + skip) + 1);
    return text;
}

char* trim(char* text) {
    return trim_left(trim_right(text));
}

void strip_newlines(char* text) {
    if (!text) return;
    for (size_t i = std::strlen(text); i > 0 && text[i - 1] == '\n'; --i) text[i - 1] = '\0';
    size_t skip = 0;
    while (text[skip] == '\n') ++skip;
    if (skip) std::memmove(text, text + skip, std::strlen(text + skip) + 1);
}

void copy_text(char* destination, size_t size, const char* source) {
    if (!destination || size == 0) return;
    if (!source) source = "";
    size_t length = strnlen(source, size - 1);
    std::memcpy(destination, source, length);
    destination[length] = '\0';
}

}  // namespace cbsd::base
