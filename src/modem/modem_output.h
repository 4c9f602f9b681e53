// Pure readers of the modem manager's output lines and the cell frequency
// range arithmetic: text in, value out, no commands and no configuration, so
// they can be tested and fuzzed on their own.
#pragma once

#include <cstddef>

namespace cbsd::modem {

// The text between the first double quote after the first ":" and the next
// double quote (or the end of the line when that quote is missing) goes
// into buffer, at most length characters; a terminator follows when there is
// room within those length bytes (callers clear their buffer and pass its size
// less one, so the result is always terminated).  Returns false and leaves the
// buffer untouched when there is no ":" or no opening quote.
bool parse_quoted_value(const char* output, char* buffer, size_t length);

// The decimal number between the first ":" and the next "," (or the end),
// trimmed of surrounding white space.  Text that is not a number reads as 0
// and values beyond the int range are clamped to it.  Returns false for null
// or empty output and for output without ":".
bool parse_number(const char* output, int* value);

// The attach test: any "4" in the status line counts as network status 4.
bool shows_attached(const char* output);

// The three texts stored in section cellInfo.
struct CellRange {
    char lowFrequency[32];
    char highFrequency[32];
    char bandwidth[32];
};

// frequency in tenths of a MHz, bandwidth in MHz; no plausibility check.
CellRange compute_cell_range(int frequency, int bandwidth);

}  // namespace cbsd::modem
