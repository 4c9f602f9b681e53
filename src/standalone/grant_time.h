// The SAS deadlines kept in /etc/config/sas (transmit and grant expiry), the
// grant-renewal marker and the granted power.
#pragma once

namespace cbsd::standalone {

// Each getter clears the buffer and copies the stored text (at most size - 1
// characters); "" and a "No value" line when the store cannot be read.
void get_transmit_expire_time(char* buffer, int size);
void get_grant_expire_time(char* buffer, int size);
unsigned set_transmit_expire_time(const char* text);
unsigned set_grant_expire_time(const char* text);
unsigned set_grant_renew(const char* text);
unsigned set_power_spectral_density(const char* text);
int get_grant_renew();  // 0 when missing

}  // namespace cbsd::standalone
