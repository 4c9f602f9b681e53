// Typed accessors of /etc/config/sas, each one config_get or config_set with a
// cleared local buffer.
#pragma once

#include "config/schema.h"

#include <cstddef>

namespace cbsd::config {

// False when /etc/config/sas is missing, empty or cannot be read or parsed:
// then every accessor below would read "absent", which is not "disabled".
bool sas_config_readable();
bool is_sas_enabled();               // config.enableMode == 1  ("[SAS] enableMode no value")
bool is_dp_enabled();                // config.usedp == 1       ("[SAS] usedp no value")
bool is_single_step_registration();  // config.sasStepChoice == 1
bool is_radio_enabled();             // sasConfig.RadioEnable == 1 ("[SAS] RadioEnable no value")
bool is_sas_host_verified();         // config.verifySasHost == 1 (absent: off, no message)
bool is_sas_ca_required();           // config.requireSasCa == 1  (absent: off, no message)
// Writes one option of /etc/config/sas and reads it back: 1 when the file now
// holds the value.  A failing store is logged once when the failures start
// ("[SAS] /etc/config/sas cannot be written (...)") and once when a write
// lands again; the setters below all go this way.
unsigned write_sas_option(UciName name, const char* value);
bool store_failing();
unsigned set_radio_enable(const char* value);
int get_antenna_gain();              // -1 when the file cannot be read
int get_power_spectral_density();    // 0 when empty
void get_status(char* buffer, size_t size);
unsigned set_status(const char* value);
void get_server_address(char* buffer, size_t size);
// Section cellInfo: the serving cell's lowFrequency, highFrequency and
// bandwidth, each logged after the writes.  Plain writes, without the
// read-back of write_sas_option: a store without the section keeps none.
void set_cell_range(const char* low_frequency, const char* high_frequency, const char* bandwidth);

}  // namespace cbsd::config
