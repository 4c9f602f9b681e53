#include "gating/transmit_power.h"

#include "config/cbsd_state_reset.h"
#include "config/uci_store.h"
#include "gating_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>

using namespace cbsd;
using namespace cbsd::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class TransmitPowerTest : public AuthorizedDeviceTest {};

TEST_F(TransmitPowerTest, PowerIsDensityPlusBandwidthFactorMinusGain) {
    EXPECT_EQ(gating::compute_transmit_power(), 27);
    EXPECT_EQ(log_text(), "");
}

TEST_F(TransmitPowerTest, BandwidthFactorTable) {
    const std::pair<const char*, int32_t> cases[] = {
        {R"({"bandwidth": 20})", 13}, {R"({"bandwidth": 15})", 11}, {R"({"bandwidth": 10})", 10},
        {R"({"bandwidth": 5})", 7},   {R"({"bandwidth": 3})", 0},   {R"({"bandwidth": 1.4})", 0},
        {R"({"bandwidth": 40})", 0},  {R"({"fail": true})", 0},     {R"({})", 0},
    };
    for (const auto& [modem, factor] : cases) {
        set_modem(modem);
        EXPECT_EQ(gating::compute_transmit_power(), 20 + factor - 6) << modem;
    }
}

TEST_F(TransmitPowerTest, UnreadableStoreCountsGainAsMinusOneAndDensityAsZero) {
    shell("rm -f /etc/config/sas");
    EXPECT_EQ(gating::compute_transmit_power(), 0 + 13 + 1);
    EXPECT_THAT(log_messages(), ElementsAre("[SAS] antennaGain No value.",
                                            "[SAS] powerSpectralDensity No value."));
    EXPECT_THAT(syslog_records(), IsEmpty());
}

TEST_F(TransmitPowerTest, MissingOptionsCountAsZero) {
    write_file("/etc/config/sas", "config sas 'config'\n\nconfig sas 'sasConfig'\n");
    set_modem(R"({"bandwidth": 10})");
    EXPECT_EQ(gating::compute_transmit_power(), 10);
    EXPECT_EQ(log_text(), "");
}

TEST_F(TransmitPowerTest, NegativeAndClearedDensity) {
    config::config_set(config::kSasConfigPath, "sasConfig", "powerSpectralDensity", "-7");
    config::config_set(config::kSasConfigPath, "config", "antennaGain", "-2");
    EXPECT_EQ(gating::compute_transmit_power(), -7 + 13 + 2);
    config::clear_cbsd_state();
    EXPECT_EQ(gating::compute_transmit_power(), 0 + 13 + 2);
}

TEST_F(TransmitPowerTest, ApplyingThePowerChangesNothing) {
    std::string before = read_file("/etc/config/sas");
    gating::apply_transmit_power(true, 27);
    gating::apply_transmit_power(false, -1);
    EXPECT_EQ(read_file("/etc/config/sas"), before);
    EXPECT_EQ(log_text(), "");
}

}  // namespace
