// Every reply parser over the same bytes, each into a fresh reply of its own:
// what the hostile-reply tests and the reply fuzz target feed their bytes to.
#pragma once

#include "sas/exchanges.h"

#include <cstdint>
#include <string_view>

namespace cbsd::sas {

template <typename Reply>
void parse_into_fresh_reply(std::string_view bytes, int32_t (*parse)(std::string_view, Reply*)) {
    Reply reply{};
    parse(bytes, &reply);
}

inline void parse_with_every_parser(std::string_view bytes) {
    parse_into_fresh_reply(bytes, parse_registration_response);
    parse_into_fresh_reply(bytes, parse_spectrum_inquiry_response);
    parse_into_fresh_reply(bytes, parse_grant_response);
    parse_into_fresh_reply(bytes, parse_heartbeat_response);
    parse_into_fresh_reply(bytes, parse_relinquishment_response);
    parse_into_fresh_reply(bytes, parse_deregistration_response);
}

}  // namespace cbsd::sas
