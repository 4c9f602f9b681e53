// The serving cell as the modem tells it: waits for the attachment and the
// cell's frequency range read from the modem.  Nothing here writes the store.
#pragma once

#include "modem/modem_output.h"

namespace cbsd::modem {

// Polls every 0.5 s until the modem is attached with a frequency.  0, or -1
// once timeout_s has passed (timeout_s <= 0: no limit).
int wait_for_lte(int timeout_s);
// Polls until the modem is attached to a plausible cell (frequency and
// bandwidth within their ranges), logs the success and gives its range.  0,
// or -1 on time-out (timeout_s <= 0: no limit); range is set only on 0.
int wait_for_cell_range(int timeout_s, CellRange& range);
// The range of the cell the modem tells now, unchecked.  False, with one log
// line, when the modem manager refused: the range then says nothing.
bool read_cell_range(CellRange& range);

}  // namespace cbsd::modem
