#include "sas/request_body.h"

#include "base/log.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace cbsd::sas {

BodyStatus store_request_body(json_t* root, char* body, size_t capacity) {
    std::memset(body, 0, capacity);
    char* text = root ? json_dumps(root, JSON_INDENT(2)) : nullptr;
    if (!text) {
        base::notice("[SAS] request message is NULL\n");
        return BodyStatus::kEmpty;
    }
    size_t length = std::strlen(text);
    if (length >= capacity) {
        // Cutting the text would post invalid JSON; refusing it keeps the
        // SAS from ever seeing half a request.
        base::error_to_syslog("[SAS] request message too long (%zu bytes, limit %zu), not sent\n", length,
                  capacity - 1);
        std::free(text);
        return BodyStatus::kTooLong;
    }
    std::memcpy(body, text, length);
    std::free(text);
    base::notice("[SAS] %s\n", body);
    return BodyStatus::kStored;
}

json_t* single_request_envelope(const char* member, json_t* item) {
    json_t* list = json_array();
    json_t* root = json_object();
    if (!list || !root || !item) {
        json_decref(list);
        json_decref(root);
        json_decref(item);
        return nullptr;
    }
    json_array_append_new(list, item);
    json_object_set_new(root, member, list);
    return root;
}

json_t* distinct_meas_report() {
    json_t* reports = json_array();
    for (int i = 0; reports && i < kMeasReportEntries; ++i) {
        json_t* entry = json_object();
        json_object_set_new(entry, "measFrequency",
                            json_integer(kFirstMeasFrequency + i * kMeasFrequencyStep));
        json_object_set_new(entry, "measBandwidth", json_integer(kMeasBandwidth));
        json_object_set_new(entry, "measRcvdPower", json_integer(kFirstMeasPower + i));
        json_array_append_new(reports, entry);
    }
    json_t* report = json_object();
    json_object_set_new(report, "rcvdPowerMeasReports", reports);
    return report;
}

void set_text(json_t* object, const char* member, const char* text) {
    json_t* value = json_string(text ? text : "");
    if (!value) {
        base::error("[SAS] %s is not valid UTF-8, sent empty\n", member);
        value = json_string("");
    }
    json_object_set_new(object, member, value);
}

bool has_capability(const config::DeviceRecord* record, const char* capability) {
    return std::strstr(record->measCapability, capability) != nullptr;
}

uint32_t mhz_to_hz(float mhz) {
    double tenths = mhz * 10.0;
    // Outside the unsigned 32-bit range the conversion would be undefined, so
    // such values saturate (no CBRS cell edge comes near either end); the
    // final product wraps as unsigned arithmetic does.
    if (!(tenths > 0.0)) return 0;
    uint32_t whole = tenths >= 4294967295.0 ? UINT32_MAX : static_cast<uint32_t>(tenths);
    return whole * 100000u;
}

uint32_t mhz_text_to_hz(const char* mhz) {
    return mhz_to_hz(static_cast<float>(std::atof(mhz)));
}

}  // namespace cbsd::sas
