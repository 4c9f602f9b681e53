// The six SAS-CBSD exchanges.  Request routines return the transport result
// (0 = a reply arrived, else a CURLcode or -1); parsers read /tmp/sasmsg.json
// into a record and return 0 only for responseCode 0.
#pragma once

#include "config/device_record.h"
#include "sas/replies.h"

#include <cstdint>

namespace cbsd::sas {

int32_t registeration_request(const char* serverUrl, const config::DeviceRecord* record);
int32_t parse_registration_response(RegistrationResponse* reply);

int32_t spectrumInquiry_request(const char* serverUrl, const RegistrationResponse* registration,
                                const config::DeviceRecord* record);
int32_t parse_spectrum_inquiry_response(SpectrumInquiryResponse* reply);

int32_t grant_request(const char* serverUrl, const RegistrationResponse* registration,
                      const config::DeviceRecord* record);
int32_t parse_grant_response(GrantResponse* reply);

// operationState is "GRANTED" or "AUTHORIZED".
int32_t heartbeat_request(const char* serverUrl, const GrantResponse* grant,
                          const config::DeviceRecord* record, const char* operationState);
int32_t parse_heartbeat_response(HeartbeatResponse* reply);

// Drivers: post, parse and log the outcome themselves.
void relinquishment_request(const char* serverUrl, const char* cbsdId, const char* grantId,
                            RelinquishmentResponse* reply);
void deregistration_request(const char* serverUrl, const char* cbsdId, DeregistrationResponse* reply);
int32_t post_relinquishment(const char* serverUrl, const char* cbsdId, const char* grantId);
int32_t post_deregistration(const char* serverUrl, const char* cbsdId);
int32_t parse_relinquishment_response(RelinquishmentResponse* reply);
int32_t parse_deregistration_response(DeregistrationResponse* reply);

}  // namespace cbsd::sas
