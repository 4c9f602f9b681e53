// Reply records of the six SAS exchanges.  Each begins with responseCode
// (-1 when there was no usable reply) and the cbsdId.
#pragma once

#include <cstdint>

namespace cbsd::sas {

struct RegistrationResponse {
    int32_t responseCode;
    char cbsdId[128];
};

struct SpectrumInquiryResponse {
    int32_t responseCode;
    char cbsdId[128];
    uint32_t lowFrequency;   // Hz
    uint32_t highFrequency;  // Hz
    char channelType[16];
    char ruleApplied[128];
    int32_t maxEirp;  // 2147483647 when the SAS sent none
};

struct GrantResponse {
    int32_t responseCode;
    char cbsdId[128];
    char grantId[128];
    char grantExpireTime[64];
    int32_t heartbeatInterval;  // written only when the reply carries it
    char channelType[16];
    char responseData[128];     // code 401: the conflicting grant's id
};

struct HeartbeatResponse {
    int32_t responseCode;
    char cbsdId[128];
    char grantId[128];
    char transmitExpireTime[64];
    char grantExpireTime[64];
    int32_t heartbeatInterval;
};

struct RelinquishmentResponse {
    int32_t responseCode;
    char cbsdId[128];
    char grantId[128];
};

struct DeregistrationResponse {
    int32_t responseCode;
    char cbsdId[128];
};

}  // namespace cbsd::sas
