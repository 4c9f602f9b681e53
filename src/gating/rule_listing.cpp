#include "gating/rule_listing.h"

#include <cstring>

namespace cbsd::gating {

namespace {

// Calls test(line, length) for every line of the listing; counts the true ones.
template <typename Test>
int count_lines(const char* listing, Test test) {
    if (!listing) return 0;
    int count = 0;
    for (const char* line = listing; *line;) {
        const char* end = std::strchr(line, '\n');
        size_t length = end ? static_cast<size_t>(end - line) : std::strlen(line);
        if (test(line, length)) ++count;
        if (!end) break;
        line = end + 1;
    }
    return count;
}

bool contains(const char* line, size_t length, const char* needle, size_t needle_length) {
    for (size_t at = 0; at + needle_length <= length; ++at)
        if (std::memcmp(line + at, needle, needle_length) == 0) return true;
    return false;
}

}  // namespace

int count_lines_containing(const char* listing, const char* rule) {
    size_t rule_length = std::strlen(rule);
    return count_lines(listing, [&](const char* line, size_t length) {
        return contains(line, length, rule, rule_length);
    });
}

int count_rule_lines(const char* listing, const char* rule) {
    size_t rule_length = std::strlen(rule);
    return count_lines(listing, [&](const char* line, size_t length) {
        if (length == rule_length + 1 && line[rule_length] == ' ') --length;
        return length == rule_length && std::memcmp(line, rule, rule_length) == 0;
    });
}

}  // namespace cbsd::gating
