// Follows the serving cell into section cellInfo: the range the modem tells
// goes to the store, where the SAS requests read it.
#pragma once

namespace cbsd::daemon {

// Waits for a plausible cell (modem::wait_for_cell_range) and stores its
// range.  0, or -1 on time-out with nothing written (timeout_s <= 0: no limit).
int wait_and_store_cell_range(int timeout_s);
// Stores the range of the cell the modem tells now, unchecked; a modem
// manager that refused leaves the stored range as it is.
void store_cell_range();

}  // namespace cbsd::daemon
