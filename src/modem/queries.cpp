#include "base/clock.h"
#include "base/log.h"
#include "modem/line_filter.h"
#include "modem/lte_info.h"
#include "modem/modem.h"
#include "modem/modem_manager.h"
#include "modem/modem_output.h"

#include <atomic>
#include <cstring>

namespace cbsd::modem {

namespace {

// One filtered query; `shown_as` is the pipeline it replaced, which a
// time-out line still names.
struct Query {
    const char* method;
    const char* pattern;
    const char* shown_as;
};

constexpr Query kProductModelQuery{"getproductinfo", "productmodule",
                                   "ubus call  ubus_lte getproductinfo | grep productmodule"};
constexpr Query kSerialNumberQuery{"getproductinfo", "SN",
                                   "ubus call  ubus_lte getproductinfo | grep SN"};
constexpr Query kNetworkStatusQuery{"getltestatus", "netstat",
                                    "ubus call ubus_lte getltestatus | grep netstat"};
constexpr const char* kDownlinkFrequencyCommand = "ubus call ubus_lte getlteinfo | grep dlfreq";
constexpr const char* kBandwidthCommand = "ubus call ubus_lte getlteinfo | grep bandwidth";
constexpr const char* kBandCommand = "ubus call ubus_lte getlteinfo | grep -w band";

// Runs the query into a cleared buffer; a modem manager that cannot be
// started leaves it empty, which every query treats as its failure case.
void run_query(const Query& query, char* output, int capacity) {
    std::memset(output, 0, static_cast<size_t>(capacity));
    LineFilter filter(query.pattern, false, output, capacity);
    if (!call_modem_manager(query.method, filter, query.shown_as)) filter.cut_short();
    output[capacity - 1] = '\0';
}

void get_quoted(const Query& query, char* buffer, size_t length) {
    char output[1024];
    run_query(query, output, sizeof output);
    parse_quoted_value(output, buffer, length);
}

bool query_attachment() {
    char output[1024];
    run_query(kNetworkStatusQuery, output, sizeof output);
    return shows_attached(output);
}

// The last attachment seen and when, in one word so that a reader in another
// thread never pairs a state with the wrong time: (ms << 1) | attached; -1
// before the first query.
std::atomic<int64_t> last_lte_observation{-1};

}  // namespace

void get_product_model(char* buffer, size_t length) {
    get_quoted(kProductModelQuery, buffer, length);
}

void get_serial_number(char* buffer, size_t length) {
    get_quoted(kSerialNumberQuery, buffer, length);
}

bool is_lte_connected() {
    bool attached = query_attachment();
    last_lte_observation.store((base::monotonic_ms64() << 1) | (attached ? 1 : 0));
    return attached;
}

bool lte_connected_seen_within(uint32_t max_age_ms) {
    int64_t seen = last_lte_observation.load();
    if (seen >= 0 && base::monotonic_ms64() - (seen >> 1) <= static_cast<int64_t>(max_age_ms))
        return (seen & 1) != 0;
    return query_attachment();
}

int get_dl_frequency() {
    const char* output = lte_info(kDownlinkFrequencyCommand).frequency;
    int value = 0;
    if (!parse_number(output, &value)) {
        base::notice("get frequency error:%s\n", output);
        return 0;
    }
    return value / 100;
}

int get_bandwidth() {
    const char* output = lte_info(kBandwidthCommand).bandwidth;
    int value = 0;
    if (!parse_number(output, &value)) {
        // The frequency query's message, as the log has always read.
        base::notice("get frequency error:%s\n", output);
        return -1;
    }
    return value;
}

int get_band() {
    const char* output = lte_info(kBandCommand).band;
    int value = 0;
    if (!parse_number(output, &value)) {
        base::notice("get band error:%s\n", output);
        return -1;
    }
    return value;
}

}  // namespace cbsd::modem
