// Collects a stream of output the way the daemon has always kept command
// output: in pieces of one line (or 255 characters of a longer line), each
// counted up to its first NUL byte, appended while the total stays below the
// caller's capacity.  Pure, so a file read directly keeps exactly what `cat`
// of the same file through a command would have kept.
#pragma once

#include "base/output_sink.h"

#include <cstddef>

namespace cbsd::base {

class LineCollector : public OutputSink {
public:
    LineCollector(char* buffer, int capacity) : buffer_(buffer), capacity_(capacity) {}

    // Feeds bytes; false once the buffer is full and the rest is dropped.
    bool feed(const char* data, size_t size) override;
    // Ends the stream: a last piece without a newline is kept too.
    void finish() override;
    bool full() const { return full_; }

private:
    bool flush_piece();

    char* buffer_;
    int capacity_;
    int total_ = 0;
    char piece_[256] = {};
    size_t piece_size_ = 0;
    bool full_ = false;
};

}  // namespace cbsd::base
