// The six SAS-CBSD exchanges.  Request routines post through the transport
// they are given and return its reply; parsers read a reply's usable bytes
// (PostReply::usable()) into a record and return 0 only for responseCode 0.
#pragma once

#include "config/device_record.h"
#include "sas/replies.h"
#include "sas/transport.h"

#include <cstdint>
#include <string_view>

namespace cbsd::sas {

PostReply registeration_request(const Transport& post, const char* serverUrl,
                                const config::DeviceRecord* record);
int32_t parse_registration_response(std::string_view bytes, RegistrationResponse* reply);

PostReply spectrumInquiry_request(const Transport& post, const char* serverUrl,
                                  const RegistrationResponse* registration,
                                  const config::DeviceRecord* record);
int32_t parse_spectrum_inquiry_response(std::string_view bytes, SpectrumInquiryResponse* reply);

PostReply grant_request(const Transport& post, const char* serverUrl,
                        const RegistrationResponse* registration,
                        const config::DeviceRecord* record);
int32_t parse_grant_response(std::string_view bytes, GrantResponse* reply);

// operationState is "GRANTED" or "AUTHORIZED".
PostReply heartbeat_request(const Transport& post, const char* serverUrl,
                            const GrantResponse* grant, const config::DeviceRecord* record,
                            const char* operationState);
int32_t parse_heartbeat_response(std::string_view bytes, HeartbeatResponse* reply);

// Drivers: post, parse and log the outcome themselves.
void relinquishment_request(const Transport& post, const char* serverUrl, const char* cbsdId,
                            const char* grantId, RelinquishmentResponse* reply);
void deregistration_request(const Transport& post, const char* serverUrl, const char* cbsdId,
                            DeregistrationResponse* reply);
int32_t parse_relinquishment_response(std::string_view bytes, RelinquishmentResponse* reply);
int32_t parse_deregistration_response(std::string_view bytes, DeregistrationResponse* reply);

}  // namespace cbsd::sas
