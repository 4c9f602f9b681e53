#include "modem/line_filter.h"

#include <cstring>

namespace cbsd::modem {

namespace {

// grep's output to a pipe went out in blocks of this size.
constexpr size_t kGrepOutputBlock = 4096;
// The collector keeps pieces of at most this many bytes.
constexpr size_t kCollectorPiece = 255;

// A word byte of grep -w in the C locale.
bool is_word_byte(char byte) {
    return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') ||
           (byte >= 'a' && byte <= 'z') || byte == '_';
}

}  // namespace

LineFilter::LineFilter(const char* pattern, bool whole_word, char* buffer, int capacity)
    : pattern_(pattern), whole_word_(whole_word), buffer_(buffer), capacity_(capacity),
      kept_(buffer, capacity) {}

bool LineFilter::feed(const char* data, size_t size) {
    for (size_t i = 0; i < size; ++i) take(data[i]);
    // Read to the end even once the buffer is full: a NUL byte further on
    // would still have silenced grep.
    return true;
}

// True when the last pattern-length bytes of the line are the pattern (with
// -w: at word edges; edge_after tells whether the next byte is one).
bool LineFilter::occurrence_before_here(bool edge_after) const {
    size_t n = recent_.size();
    size_t p = pattern_.size();
    if (n < p || recent_.compare(n - p, p, pattern_) != 0) return false;
    if (!whole_word_) return true;
    bool edge_before = line_length_ == p || !is_word_byte(recent_[n - p - 1]);
    return edge_before && edge_after;
}

void LineFilter::take(char byte) {
    if (byte == '\0') saw_nul_ = true;
    if (byte == '\n') {
        end_line();
        return;
    }
    if (whole_word_ && !line_matches_) line_matches_ = occurrence_before_here(!is_word_byte(byte));
    ++line_length_;
    // A line fed to the collector beyond its capacity plus one piece has
    // filled it, so nothing past that prefix could change what it keeps.
    if (line_.size() < static_cast<size_t>(capacity_) + kCollectorPiece) line_ += byte;
    recent_ += byte;
    if (recent_.size() > pattern_.size() + 1) recent_.erase(0, 1);
    if (!whole_word_ && !line_matches_) line_matches_ = occurrence_before_here(true);
}

void LineFilter::end_line() {
    if (whole_word_ && !line_matches_) line_matches_ = occurrence_before_here(true);
    if (line_matches_) {
        kept_.feed(line_.data(), line_.size());
        if (line_.size() == line_length_) kept_.feed("\n", 1);
        printed_ += line_length_ + 1;
    }
    line_.clear();
    recent_.clear();
    line_length_ = 0;
    line_matches_ = false;
}

void LineFilter::finish() {
    // grep ends a last line that has no newline with one.
    if (line_length_ > 0) end_line();
    kept_.finish();
    finished_ = true;
    if (saw_nul_) clear_kept();
}

void LineFilter::cut_short() {
    if (finished_) return;
    if (saw_nul_ || printed_ < kGrepOutputBlock) clear_kept();
}

void LineFilter::clear_kept() { std::memset(buffer_, 0, static_cast<size_t>(capacity_)); }

}  // namespace cbsd::modem
