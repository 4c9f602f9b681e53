// The lines of a modem reply that `grep PATTERN` (or `grep -w PATTERN`)
// printed in the daemon's C locale, kept the way the daemon kept that
// command's output (base::LineCollector), but filtered in-process so that a
// query starts the modem manager alone instead of a shell, `ubus` and `grep`.
//
// What grep did, and so what this does, for every kind of reply:
// - the pattern is a fixed text, compared byte for byte; every matching line
//   is kept, in order, each followed by a newline (also a last line that
//   had none); an empty reply or one without a match keeps nothing;
// - -w: an occurrence counts only with a non-word byte or the line's edge on
//   both sides (word bytes: ASCII letters, digits, "_"; in the C locale no
//   byte above 127 is one), so "bandwidth" is no "band" but "band:" is;
// - a reply holding a NUL byte keeps nothing: grep calls it a binary file and
//   writes its "binary file matches" notice to standard error, which the
//   daemon never read (grep decides this per read; every reply up to its
//   first 96 KiB read behaves so, and a modem reply is far shorter);
// - bytes above 127 are plain bytes (the C locale has no encoding errors);
// - a reply cut short by the time limit keeps nothing unless the matching
//   lines reached 4096 bytes: grep's output to a pipe left it in blocks of
//   4096 bytes, and the rest died with the killed pipeline.
#pragma once

#include "base/line_collector.h"
#include "base/output_sink.h"

#include <cstddef>
#include <string>

namespace cbsd::modem {

class LineFilter : public base::OutputSink {
public:
    // The kept lines go into buffer (capacity bytes, cleared by the caller).
    LineFilter(const char* pattern, bool whole_word, char* buffer, int capacity);

    bool feed(const char* data, size_t size) override;  // always reads on
    void finish() override;
    // The reply was cut short by the time limit (no finish() came).
    void cut_short();

private:
    void take(char byte);
    bool occurrence_before_here(bool edge_after) const;
    void end_line();
    void clear_kept();

    std::string pattern_;
    bool whole_word_;
    char* buffer_;
    int capacity_;
    base::LineCollector kept_;
    std::string line_;     // the start of the current line, as much as can be kept
    std::string recent_;   // its last pattern-length + 1 bytes, for matching
    size_t line_length_ = 0;
    bool line_matches_ = false;
    bool saw_nul_ = false;
    bool finished_ = false;
    size_t printed_ = 0;   // bytes grep would have printed so far
};

}  // namespace cbsd::modem
