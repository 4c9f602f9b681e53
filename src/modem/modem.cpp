#include "modem/modem.h"

#include "base/clock.h"
#include "base/log.h"
#include "bus/bus.h"
#include "modem/line_filter.h"
#include "modem/lte_info.h"
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
ModemCall run_query(const Query& query, char* output, int capacity) {
    std::memset(output, 0, static_cast<size_t>(capacity));
    LineFilter filter(query.pattern, false, output, capacity);
    ModemCall call = call_modem_manager(query.method, filter, query.shown_as);
    if (call == ModemCall::kCutShort) filter.cut_short();
    output[capacity - 1] = '\0';
    return call;
}

// Both product filters read one reply side by side.
class ProductFilters : public base::OutputSink {
public:
    ProductFilters(char* model_lines, char* serial_lines, int capacity)
        : model_(kProductModelQuery.pattern, false, model_lines, capacity),
          serial_(kSerialNumberQuery.pattern, false, serial_lines, capacity) {}

    bool feed(const char* data, size_t size) override {
        model_.feed(data, size);
        serial_.feed(data, size);
        return true;
    }
    void finish() override {
        model_.finish();
        serial_.finish();
    }
    void cut_short() {
        model_.cut_short();
        serial_.cut_short();
    }

private:
    LineFilter model_;
    LineFilter serial_;
};

void get_quoted(const Query& query, char* buffer, size_t length) {
    char output[1024];
    run_query(query, output, sizeof output);
    parse_quoted_value(output, buffer, length);
}

// The last attachment seen and when, in one word so that a reader in another
// thread never pairs a state with the wrong time: (ms << 1) | attached; -1
// before the first query.
std::atomic<int64_t> last_lte_observation{-1};

bool last_attachment() {
    int64_t seen = last_lte_observation.load();
    return seen >= 0 && (seen & 1) != 0;
}

// A refusal (the modem manager restarting, ubusd gone) keeps the attachment
// last seen; a killed query reads as not attached, as it always has.
bool query_attachment() {
    char output[1024];
    if (run_query(kNetworkStatusQuery, output, sizeof output) == ModemCall::kRefused)
        return last_attachment();
    return shows_attached(output);
}

}  // namespace

void get_product_model(char* buffer, size_t length) {
    get_quoted(kProductModelQuery, buffer, length);
}

void get_serial_number(char* buffer, size_t length) {
    get_quoted(kSerialNumberQuery, buffer, length);
}

bool read_product_info(ProductInfo& info) {
    info = ProductInfo{};
    char model_lines[1024] = {};
    char serial_lines[1024] = {};
    ProductFilters filters(model_lines, serial_lines, sizeof model_lines);
    ModemCall call = call_modem_manager(kProductModelQuery.method, filters,
                                        kProductModelQuery.shown_as);
    if (call == ModemCall::kCutShort) filters.cut_short();
    model_lines[sizeof model_lines - 1] = '\0';
    serial_lines[sizeof serial_lines - 1] = '\0';
    parse_quoted_value(model_lines, info.model, sizeof info.model - 1);
    parse_quoted_value(serial_lines, info.serial, sizeof info.serial - 1);
    return call == ModemCall::kAnswered;
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

bool queries_start_processes() { return !bus::running(); }

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
