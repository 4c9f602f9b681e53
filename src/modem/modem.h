// Queries to the LTE modem manager (`ubus call ubus_lte ...`): the product,
// the attachment and the serving cell's frequency, bandwidth and band.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cbsd::modem {

// Copy the quoted value of the matching line into buffer, at most length
// characters (callers clear the buffer and pass its size less one).  On
// failure the buffer is left unchanged.
void get_product_model(char* buffer, size_t length);
void get_serial_number(char* buffer, size_t length);

// The product model and the serial number from one getproductinfo reply,
// each as the two queries above read it (cleared first).  True only when the
// modem manager answered (ubus ended with status 0); otherwise (not
// registered yet, no ubusd, a failure, the time limit) the values say nothing.
struct ProductInfo {
    char model[32];
    char serial[256];
};
bool read_product_info(ProductInfo& info);

// The attachment (netstat 4).  A query the modem manager refuses (it is
// restarting, ubusd is gone) reports the attachment last seen, false before
// any: a modem that cannot be asked has not changed its link.  A query killed
// at its time limit reads as not attached.
bool is_lte_connected();
// The attachment the last is_lte_connected() of any thread saw, when that was
// at most max_age_ms ago; otherwise the modem is asked now (an answer only
// this caller uses: it is no news for the next one).  Lets a thread
// that only watches for a change ride on the supervision pass's own query
// instead of starting the modem manager once more.
bool lte_connected_seen_within(uint32_t max_age_ms);
// True when each query starts a process (the `ubus` CLI); false while they go
// over the bus thread's libubus connection, where a query costs no process.
bool queries_start_processes();
int get_dl_frequency();  // tenths of a MHz; 0 on failure
int get_bandwidth();     // MHz; -1 on failure
int get_band();          // -1 on failure

}  // namespace cbsd::modem
