#include "base/line_collector.h"

#include <cstring>

namespace cbsd::base {

namespace {

constexpr size_t kPieceLimit = 255;  // longer lines arrive in pieces of this size

}  // namespace

bool LineCollector::flush_piece() {
    piece_[piece_size_] = '\0';
    int length = static_cast<int>(std::strlen(piece_));
    piece_size_ = 0;
    if (total_ + length < capacity_) {
        std::memcpy(buffer_ + total_, piece_, static_cast<size_t>(length) + 1);
        total_ += length;
        return true;
    }
    // The rest of the output is dropped: only whole lines are kept.
    buffer_[total_] = '\0';
    full_ = true;
    return false;
}

bool LineCollector::feed(const char* data, size_t size) {
    for (size_t i = 0; i < size && !full_; ++i) {
        piece_[piece_size_++] = data[i];
        if (data[i] == '\n' || piece_size_ == kPieceLimit) flush_piece();
    }
    return !full_;
}

void LineCollector::finish() {
    if (!full_ && piece_size_ > 0) flush_piece();
}

}  // namespace cbsd::base
