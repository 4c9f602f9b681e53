#include "daemon/cell_range_update.h"

#include "config/accessors.h"
#include "modem/cell_range.h"

namespace cbsd::daemon {

namespace {

void store(const modem::CellRange& range) {
    config::set_cell_range(range.lowFrequency, range.highFrequency, range.bandwidth);
}

}  // namespace

int wait_and_store_cell_range(int timeout_s) {
    modem::CellRange range{};
    if (modem::wait_for_cell_range(timeout_s, range) != 0) return -1;
    store(range);
    return 0;
}

void store_cell_range() {
    modem::CellRange range{};
    if (modem::read_cell_range(range)) store(range);
}

}  // namespace cbsd::daemon
