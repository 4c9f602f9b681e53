// The reset of the published CBSD state and the log lines it leaves.
#include "config/cbsd_state_reset.h"

#include "base/cbsd_state.h"
#include "base/settings.h"
#include "config/authorized_sample.h"
#include "config/lab_log.h"
#include "config/uci_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace cbsd::config {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace cbsd::test;

// The lab's `logger` stand-in first on PATH, so a system-log copy would be
// seen; a fresh log and store.
class CbsdStateReset : public ::testing::Test {
protected:
    void SetUp() override {
        put_lab_stand_ins_on_path();
        shell("rm -rf /root/sas /etc/lab/syslog.jsonl; mkdir -p /root/sas /etc/lab /etc/config");
        base::settings().logLevel = 7;
        write_file(kSasConfigPath, kAuthorizedSasConfig);
    }

    static std::string sas_option(const char* section, const char* option) {
        char value[128] = {};
        config_get(kSasConfigPath, section, option, value, sizeof value);
        return value;
    }
    static std::string log_text() { return sas_log_text(); }
    static std::vector<std::string> log_messages() { return sas_log_messages(); }
    static std::vector<std::string> syslog_records() { return syslog_record_lines(); }
};

TEST_F(CbsdStateReset, ClearCbsdStateResetsThePublishedState) {
    clear_cbsd_state();
    EXPECT_EQ(sas_option("sasConfig", "RadioEnable"), "0");
    EXPECT_EQ(sas_option("operation", "status"), "Unregistered");
    EXPECT_EQ(sas_option("operation", "status"), base::cbsd_state_name(base::kUnregistered));
    // An empty value removes the option, as the router's UCI library does.
    EXPECT_EQ(sas_option("sasConfig", "powerSpectralDensity"), "");
    EXPECT_EQ(read_file("/etc/config/sas").find("'20'"), std::string::npos);
    EXPECT_EQ(sas_option("config", "antennaGain"), "6");
    EXPECT_THAT(log_messages(),
                ElementsAre("[SAS] clear cbsd state.", "[SAS] set RadioEnable=0",
                            "[SAS] set status=Unregistered", "[SAS] set powerSpectralDensity=\"\""));
    EXPECT_THAT(syslog_records(), IsEmpty());
}

TEST_F(CbsdStateReset, ClearCbsdStateWithoutSectionsWritesNothing) {
    write_file("/etc/config/sas", "config sas 'config'\n\toption enableMode '1'\n");
    clear_cbsd_state();
    EXPECT_EQ(read_file("/etc/config/sas").find("RadioEnable"), std::string::npos);
    // The writes did not land: said once, besides the three lines of the reset.
    auto messages = log_messages();
    ASSERT_EQ(messages.size(), 5u) << log_text();
    EXPECT_NE(log_text().find("[SAS] /etc/config/sas cannot be written (sasConfig.RadioEnable), "
                              "the decision stays in memory.\n"), std::string::npos) << log_text();
}

}  // namespace
}  // namespace cbsd::config
