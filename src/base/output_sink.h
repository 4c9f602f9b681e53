// Where a started program's standard output goes as it arrives: the
// collector of whole lines that run_command uses, or a filter of its own.
#pragma once

#include <cstddef>

namespace cbsd::base {

class OutputSink {
public:
    virtual ~OutputSink() = default;
    // Takes the next bytes; false when nothing more is wanted (the program
    // then sees a closed pipe).
    virtual bool feed(const char* data, size_t size) = 0;
    // The output ended within the time limit.
    virtual void finish() = 0;
};

}  // namespace cbsd::base
