// Feeds arbitrary modem manager output, in pieces whose sizes come from the
// input too, to the line filter of every query and the parsers after it:
// the kept text always ends within its buffer, and a cut-short reply never
// keeps more than a whole one.
#include "modem/line_filter.h"
#include "modem/modem_output.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

void filter(const uint8_t* data, size_t size, const char* pattern, bool whole_word, bool cut) {
    char kept[64] = {};
    cbsd::modem::LineFilter lines(pattern, whole_word, kept, sizeof kept);
    size_t piece = size > 0 ? 1 + data[0] % 97 : 1;
    for (size_t at = 0; at < size; at += piece)
        lines.feed(reinterpret_cast<const char*>(data) + at, size - at < piece ? size - at : piece);
    if (cut)
        lines.cut_short();
    else
        lines.finish();
    if (std::memchr(kept, '\0', sizeof kept) == nullptr) std::abort();
    int value = 0;
    cbsd::modem::parse_number(kept, &value);
    char quoted[32] = {};
    cbsd::modem::parse_quoted_value(kept, quoted, sizeof quoted - 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    filter(data, size, "dlfreq", false, false);
    filter(data, size, "band", true, false);
    filter(data, size, "band", true, true);
    filter(data, size, "SN", false, false);
    return 0;
}
