#include "modem/lte_info.h"

#include "modem/line_filter.h"
#include "modem/modem_manager.h"

#include <cstring>

namespace cbsd::modem {

namespace {

// The three filters read one reply side by side.
class LteInfoFilters : public base::OutputSink {
public:
    explicit LteInfoFilters(LteInfo& info)
        : frequency_("dlfreq", false, info.frequency, sizeof info.frequency),
          bandwidth_("bandwidth", false, info.bandwidth, sizeof info.bandwidth),
          band_("band", true, info.band, sizeof info.band) {}

    bool feed(const char* data, size_t size) override {
        frequency_.feed(data, size);
        bandwidth_.feed(data, size);
        band_.feed(data, size);
        return true;
    }
    void finish() override {
        frequency_.finish();
        bandwidth_.finish();
        band_.finish();
    }
    void cut_short() {
        frequency_.cut_short();
        bandwidth_.cut_short();
        band_.cut_short();
    }

private:
    LineFilter frequency_;
    LineFilter bandwidth_;
    LineFilter band_;
};

// Per thread, so that a scope never hands one thread's reply to another.
thread_local int t_scopes = 0;
thread_local bool t_have_reply = false;
thread_local LteInfo t_reply;

void ask(LteInfo& info, const char* shown_as) {
    std::memset(&info, 0, sizeof info);
    LteInfoFilters filters(info);
    ModemCall call = call_modem_manager("getlteinfo", filters, shown_as);
    if (call == ModemCall::kCutShort) filters.cut_short();
    info.call = call;
    // Every text ends within its buffer, as each reader has always relied on.
    info.frequency[sizeof info.frequency - 1] = '\0';
    info.bandwidth[sizeof info.bandwidth - 1] = '\0';
    info.band[sizeof info.band - 1] = '\0';
}

}  // namespace

const LteInfo& lte_info(const char* shown_as) {
    if (t_scopes > 0 && t_have_reply) return t_reply;
    ask(t_reply, shown_as);
    t_have_reply = t_scopes > 0;
    return t_reply;
}

LteInfoScope::LteInfoScope() {
    if (t_scopes++ == 0) t_have_reply = false;
}

LteInfoScope::~LteInfoScope() {
    if (--t_scopes == 0) t_have_reply = false;
}

void renew_lte_info() { t_have_reply = false; }

bool lte_info_refused() { return t_reply.call == ModemCall::kRefused; }

}  // namespace cbsd::modem
