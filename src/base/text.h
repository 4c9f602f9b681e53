// In-place text cleaners for command output, and the bounded copy used for
// every fixed-width text field.
#pragma once

#include <cstddef>

namespace cbsd::base {

char* trim_right(char* text);
char* trim_left(char* text);
char* trim(char* text);
void strip_newlines(char* text);

// Copies at most size - 1 characters of source and always terminates
// (nothing happens when size is 0).  A null source copies as "".
void copy_text(char* destination, size_t size, const char* source);

}  // namespace cbsd::base
