// Registration request body, built apart from posting so that it can be
// checked without a network.
#pragma once

#include "config/device_record.h"

#include <cstddef>
#include <cstdint>

namespace cbsd::sas {

inline constexpr const char* kCpiKeyDirectory = "/root/sas/cert/cpiKey";

// The configuration that decides whether installation data are signed and sent.
struct RegistrationOptions {
    bool singleStep;           // config.sasStepChoice == 1
    char cpiKeyFileName[256];  // cert.cpiKeyFileName, bare file name
    char cpiKeyPassword[128];  // cert.cpiKeyFilePassword
};

// Reads the options from /etc/config/sas (the key name and password only in
// single-step mode).
void load_registration_options(RegistrationOptions* options);

// Fills body (cleared for capacity bytes) with the indented registration
// request.  -1 when nothing may be sent: missing CPI key name or file, a
// serialisation failure, or a body that does not fit.
int32_t build_registration_body(const config::DeviceRecord* record,
                                const RegistrationOptions* options, char* body, size_t capacity);

}  // namespace cbsd::sas
