// Pieces shared by the request builders: the one-element request envelope,
// the synthetic measurement report, the MHz-to-Hz conversion of the cell
// edges, and the copy of the serialised body into its fixed buffer.
#pragma once

#include "config/device_record.h"

#include <jansson.h>

#include <cstddef>
#include <cstdint>

namespace cbsd::sas {

inline constexpr size_t kRequestBodyCapacity = 4096;  // registration, inquiry, grant, heartbeat
inline constexpr size_t kShortRequestBodyCapacity = 2048;  // relinquishment, deregistration

// The synthetic received-power report: no measurement is taken.
inline constexpr int kMeasReportEntries = 15;
inline constexpr json_int_t kFirstMeasFrequency = 3550000000;  // Hz
inline constexpr json_int_t kMeasFrequencyStep = 10000000;     // Hz
inline constexpr json_int_t kMeasBandwidth = 10000000;         // Hz
inline constexpr json_int_t kFirstMeasPower = -90;             // dBm

// What became of a serialised body.  A body that does not fit its buffer is
// never cut: it is refused as a whole, so nothing truncated is ever posted.
enum class BodyStatus { kStored, kEmpty, kTooLong };

// Serialises root with indentation 2 into body (cleared for capacity bytes)
// and logs it; logs "request message is NULL" or the refusal of an oversize
// body instead.  Does not release root.
BodyStatus store_request_body(json_t* root, char* body, size_t capacity);

// {"<member>": [item]}; takes ownership of item.  Null when out of memory.
json_t* single_request_envelope(const char* member, json_t* item);

// {"rcvdPowerMeasReports": [15 entries]} with entry i carrying
// 3550 MHz + i * 10 MHz, 10 MHz bandwidth and -90 + i dBm.
json_t* distinct_meas_report();

// Sets member to the text as a JSON string.  A null text, or one that is not
// valid UTF-8 (which JSON cannot carry), is sent as "" with a log line, so a
// member is never silently missing.
void set_text(json_t* object, const char* member, const char* text);

bool has_capability(const config::DeviceRecord* record, const char* capability);

// MHz value to Hz with 100 kHz resolution, in unsigned 32-bit arithmetic.
uint32_t mhz_to_hz(float mhz);
// A cell edge text in MHz (atof), narrowed to single precision, to Hz.
uint32_t mhz_text_to_hz(const char* mhz);

}  // namespace cbsd::sas
