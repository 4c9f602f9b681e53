// Names of the SAS response codes, for the log lines that report a refusal.
#include "sas/response_codes.h"

namespace cbsd::sas {

namespace {

struct ResponseCodeName {
    int32_t code;
    const char* name;
};

constexpr ResponseCodeName kResponseCodes[] = {
    {0, "SUCCESS"},
    {100, "VERSION"},
    {101, "BLACKLISTED"},
    {102, "MISSING_PARAM"},
    {103, "INVALID_VALUE"},
    {104, "CERT_ERROR"},
    {105, "DEREGISTER"},
    {200, "REG_PENDING"},
    {201, "GROUP_ERROR"},
    {300, "UNSUPPORTED_SPECTRUM"},
    {400, "INTERFERENCE"},
    {401, "GRANT_CONFLICT"},
    {500, "TERMINATED_GRANT"},
    {501, "SUSPENDED_GRANT"},
    {502, "UNSYNC_OP_PARAM"},
};

}  // namespace

const char* responseCode_name(int32_t code) {
    for (const ResponseCodeName& entry : kResponseCodes) {
        if (entry.code == code) return entry.name;
    }
    return "UNKNOWN";
}

}  // namespace cbsd::sas
