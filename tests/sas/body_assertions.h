// Helpers for the request-body tests: a filled device record, the body parsed
// back, and member checks by JSON type.
#pragma once

#include "config/device_record.h"
#include "base/text.h"
#include "support/test_util.h"

#include <gtest/gtest.h>
#include <jansson.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>

namespace cbsd::test {

inline config::DeviceRecord sample_device_record() {
    config::DeviceRecord r{};
    base::copy_text(r.userId, sizeof r.userId, "operator-1");
    base::copy_text(r.fccId, sizeof r.fccId, "FCC-TEST-1");
    base::copy_text(r.serialNumber, sizeof r.serialNumber, "SN0001");
    base::copy_text(r.callSign, sizeof r.callSign, "CALL1");
    base::copy_text(r.cbsdCategory, sizeof r.cbsdCategory, "A");
    base::copy_text(r.radioTechnology, sizeof r.radioTechnology, "E_UTRA");
    base::copy_text(r.height, sizeof r.height, "6.5");
    base::copy_text(r.heightType, sizeof r.heightType, "AGL");
    base::copy_text(r.longitude, sizeof r.longitude, "-97.7431");
    base::copy_text(r.latitude, sizeof r.latitude, "30.2672");
    base::copy_text(r.indoorDeployment, sizeof r.indoorDeployment, "1");
    base::copy_text(r.antennaGain, sizeof r.antennaGain, "5.5");
    base::copy_text(r.antennaModel, sizeof r.antennaModel, "ANT-1");
    base::copy_text(r.measCapability, sizeof r.measCapability, "RECEIVED_POWER_WITHOUT_GRANT");
    base::copy_text(r.groupId, sizeof r.groupId, "group-7");
    base::copy_text(r.groupType, sizeof r.groupType, "INTERFERENCE_COORDINATION");
    base::copy_text(r.installCertificationTime, sizeof r.installCertificationTime,
                    "2024-01-02T03:04:05Z");
    base::copy_text(r.cpiId, sizeof r.cpiId, "cpi-42");
    base::copy_text(r.cpiName, sizeof r.cpiName, "Pat Installer");
    base::copy_text(r.lowFrequency, sizeof r.lowFrequency, "3552.5");
    base::copy_text(r.highFrequency, sizeof r.highFrequency, "3567.5");
    base::copy_text(r.maxEirp, sizeof r.maxEirp, "30");
    base::copy_text(r.antennaAzimuth, sizeof r.antennaAzimuth, "270");
    base::copy_text(r.antennaDowntilt, sizeof r.antennaDowntilt, "3");
    base::copy_text(r.antennaBeamwidth, sizeof r.antennaBeamwidth, "65");
    return r;
}

// Owns a parsed body; element() is the single request object.
class ParsedBody {
public:
    ParsedBody(const char* text, const char* member) {
        json_error_t error;
        root_ = json_loads(text, 0, &error);
        if (!root_) return;
        json_t* list = json_object_get(root_, member);
        if (json_is_array(list) && json_array_size(list) == 1 && json_object_size(root_) == 1)
            element_ = json_array_get(list, 0);
    }
    ~ParsedBody() { json_decref(root_); }
    ParsedBody(const ParsedBody&) = delete;
    ParsedBody& operator=(const ParsedBody&) = delete;

    json_t* element() const { return element_; }
    json_t* get(const char* member) const { return json_object_get(element_, member); }

private:
    json_t* root_ = nullptr;
    json_t* element_ = nullptr;
};

inline std::string string_member(json_t* object, const char* member) {
    json_t* value = json_object_get(object, member);
    return json_is_string(value) ? json_string_value(value) : std::string("<not a string>");
}

inline long long integer_member(json_t* object, const char* member) {
    json_t* value = json_object_get(object, member);
    EXPECT_TRUE(json_is_integer(value)) << member << " is not a JSON integer";
    return json_integer_value(value);
}

// The reply bytes the next parse reads (exchange_fixture.h); empty: no
// usable reply.
inline std::string& reply_under_test() {
    static std::string bytes;
    return bytes;
}

// An empty log, no reply dump and no reply bytes: each test starts from the
// state of a fresh daemon even when several tests share one process.
inline void prepare_log_directory() {
    mkdir("/root/sas", 0755);
    std::remove("/root/sas/sas.log");
    std::remove("/tmp/sasmsg.json");
    reply_under_test().clear();
}

inline std::string log_text() {
    return read_file("/root/sas/sas.log");
}

}  // namespace cbsd::test
