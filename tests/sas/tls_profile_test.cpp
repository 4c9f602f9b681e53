// The TLS the device accepts from a SAS: the profile's options as values, and
// against the SAS simulator on the sandbox's loopback, which suites and
// versions pass the handshake, the host-name and CA options, and one log line
// per streak of refusals.
#include "sas/https.h"
#include "sas/tls_profile.h"

#include "support/sas_simulator.h"
#include "https_support.h"
#include "support/test_util.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace cbsd::sas {
namespace {

namespace fs = std::filesystem;
using test::write_file;
using https_test::kBody;
using https_test::log_text;
constexpr const char* kRefusedLine = "[SAS] TLS with the SAS refused (libcurl ";

const std::set<std::string> kProfileSuites = {
    "ECDHE-ECDSA-AES128-GCM-SHA256", "ECDHE-ECDSA-AES256-GCM-SHA384", "ECDHE-RSA-AES128-GCM-SHA256",
    "AES128-GCM-SHA256", "AES256-GCM-SHA384"};

std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> parts;
    std::stringstream in(text);
    for (std::string part; std::getline(in, part, ':');) parts.push_back(part);
    return parts;
}

size_t count(const std::string& text, const std::string& what) {
    size_t found = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++found;
    return found;
}

TEST(TlsOptionsTest, TlsTwelveOrLaterAndOnlyTheProfileSuites) {
    TlsOptions options = tls_options(false);
    EXPECT_EQ(options.sslVersion, CURL_SSLVERSION_TLSv1_2);
    std::vector<std::string> suites = split(options.cipherList);
    EXPECT_EQ(std::set<std::string>(suites.begin(), suites.end()), kProfileSuites);
    EXPECT_EQ(suites.size(), kProfileSuites.size());
    EXPECT_EQ(split(options.tls13Ciphers),
              (std::vector<std::string>{"TLS_AES_128_GCM_SHA256", "TLS_AES_256_GCM_SHA384"}));
    EXPECT_EQ(options.verifyHost, 0L);
}

TEST(TlsOptionsTest, HostNameIsCheckedOnlyWhenAsked) {
    EXPECT_EQ(tls_options(true).verifyHost, 2L);
    EXPECT_EQ(tls_options(false).verifyHost, 0L);
}

TEST(TlsOptionsTest, LibcurlHoldsEveryOption) {
    CURL* curl = curl_easy_init();
    ASSERT_NE(curl, nullptr);
    EXPECT_TRUE(apply_tls_options(curl, tls_options(true)));
    curl_easy_cleanup(curl);
}

TEST(TlsOptionsTest, HandshakeFailuresAreTheTlsCodesOnly) {
    for (CURLcode code : {CURLE_SSL_CONNECT_ERROR, CURLE_PEER_FAILED_VERIFICATION, CURLE_SSL_CIPHER,
                          CURLE_SSL_CACERT_BADFILE})
        EXPECT_TRUE(is_tls_failure(code)) << code;
    for (CURLcode code : {CURLE_OK, CURLE_COULDNT_CONNECT, CURLE_OPERATION_TIMEDOUT,
                          CURLE_WRITE_ERROR, CURLE_RECV_ERROR})
        EXPECT_FALSE(is_tls_failure(code)) << code;
}

class TlsProfileTest : public ::testing::Test {
protected:
    void SetUp() override {
        // End any streak an earlier test of this process left open, before the log goes.
        note_tls_result(CURLE_OK, "");
        note_ca_present();
        https_test::clear_credentials_and_log();
        ASSERT_TRUE(test::sim::install_device_certs({}));
    }
    // Section config with the given options, section cert naming the files.
    static void configure(const std::string& configOptions, const std::string& ca = "ca.pem") {
        ASSERT_TRUE(write_file("/etc/config/sas", "config config 'config'\n" + configOptions + "\n" +
                                                      test::sim::cert_section("cbsd.pem", "cbsd.key", ca)));
    }
    static int32_t post(const test::sim::Simulator& sim) {
        return https_post(sim.endpoint_url("registration").c_str(), kBody).result;
    }
};

TEST_F(TlsProfileTest, HelloOffersOnlyTheProfileSuitesAndTheHandshakeSucceeds) {
    test::sim::Simulator sim;
    configure("");
    ASSERT_EQ(post(sim), 0);
    auto hellos = sim.offered_suites();
    ASSERT_EQ(hellos.size(), 1u);
    std::set<std::string> offered(hellos[0].begin(), hellos[0].end());
    offered.erase("TLS_EMPTY_RENEGOTIATION_INFO_SCSV");
    std::set<std::string> expected = kProfileSuites;
    expected.insert({"TLS_AES_128_GCM_SHA256", "TLS_AES_256_GCM_SHA384"});
    EXPECT_EQ(offered, expected);
    EXPECT_EQ(sim.requests().size(), 1u);
}

TEST_F(TlsProfileTest, SasOfferingOnlyAes128ShaIsRefusedBeforeAnyRequestWithOneLine) {
    test::sim::Simulator sim("/v1.2", true, {"--ciphers", "AES128-SHA", "--tls-version", "1.2"});
    configure("");
    for (int attempt = 0; attempt < 3; ++attempt) EXPECT_EQ(post(sim), CURLE_SSL_CONNECT_ERROR);
    EXPECT_TRUE(sim.requests().empty());
    EXPECT_EQ(count(log_text(), kRefusedLine), 1u) << log_text();
}

TEST_F(TlsProfileTest, SasOnTlsElevenIsRefused) {
    test::sim::Simulator sim("/v1.2", true,
                             {"--ciphers", "AES128-SHA:@SECLEVEL=0", "--tls-version", "1.1"});
    configure("");
    EXPECT_NE(post(sim), 0);
    EXPECT_TRUE(sim.requests().empty());
    EXPECT_EQ(count(log_text(), kRefusedLine), 1u) << log_text();
}

TEST_F(TlsProfileTest, GcmSuiteOutsideTheProfileIsRefused) {
    for (const char* suite : {"ECDHE-RSA-AES256-GCM-SHA384", "ECDHE-RSA-CHACHA20-POLY1305"}) {
        test::sim::Simulator sim("/v1.2", true, {"--ciphers", suite, "--tls-version", "1.2"});
        configure("");
        EXPECT_EQ(post(sim), CURLE_SSL_CONNECT_ERROR) << suite;
        EXPECT_TRUE(sim.requests().empty()) << suite;
    }
}

class TlsProfileSuiteTest : public TlsProfileTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(TlsProfileSuiteTest, EachSuiteOfTheProfileForAnRsaCertificateIsAccepted) {
    test::sim::Simulator sim("/v1.2", true, {"--ciphers", GetParam(), "--tls-version", "1.2"});
    configure("");
    EXPECT_EQ(post(sim), 0);
    EXPECT_EQ(sim.requests().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(RsaSuites, TlsProfileSuiteTest,
                         ::testing::Values("AES128-GCM-SHA256", "AES256-GCM-SHA384",
                                           "ECDHE-RSA-AES128-GCM-SHA256"));

TEST_F(TlsProfileTest, TlsThirteenIsAccepted) {
    test::sim::Simulator sim("/v1.2", true, {"--tls-version", "1.3"});
    configure("");
    EXPECT_EQ(post(sim), 0);
    EXPECT_EQ(sim.requests().size(), 1u);
}

TEST_F(TlsProfileTest, CertificateForAnotherHostPassesUnlessTheHostIsChecked) {
    const std::string pki = test::sim::pki_dir();
    test::sim::Simulator sim("/v1.2", true, {"--cert", pki + "/wronghost.pem", "--key", pki + "/wronghost.key"});
    configure("");
    EXPECT_EQ(post(sim), 0);
    configure("\toption verifySasHost '1'\n");
    EXPECT_EQ(post(sim), CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(sim.requests().size(), 1u);
    EXPECT_EQ(count(log_text(), kRefusedLine), 1u) << log_text();
}

TEST_F(TlsProfileTest, CheckedHostNameOfTheRightSasPasses) {
    test::sim::Simulator sim;
    configure("\toption verifySasHost '1'\n");
    EXPECT_EQ(post(sim), 0);
    EXPECT_EQ(log_text().find(kRefusedLine), std::string::npos);
}

TEST_F(TlsProfileTest, RequiredCaThatIsNotConfiguredSendsNothingWithOneLine) {
    test::sim::Simulator sim;
    configure("\toption requireSasCa '1'\n", "");
    for (int attempt = 0; attempt < 3; ++attempt) EXPECT_EQ(post(sim), -1);
    EXPECT_EQ(sim.connections(), 0);
    std::string log = log_text();
    EXPECT_EQ(count(log, "[SAS] no server CA file (none configured) and config.requireSasCa is 1"),
              1u) << log;
    EXPECT_EQ(log.find("will not verify server"), std::string::npos) << log;
}

TEST_F(TlsProfileTest, RequiredCaWhoseFileIsMissingSendsNothingUntilItIsBack) {
    test::sim::Simulator sim;
    fs::remove("/root/sas/cert/serverCA/ca.pem");
    configure("\toption requireSasCa '1'\n");
    EXPECT_EQ(post(sim), -1);
    EXPECT_EQ(sim.connections(), 0);
    ASSERT_TRUE(test::sim::install_device_certs({}));
    EXPECT_EQ(post(sim), 0);
    fs::remove("/root/sas/cert/serverCA/ca.pem");
    EXPECT_EQ(post(sim), -1);
    // A new streak after the CA was back: its first refusal is logged again.
    EXPECT_EQ(count(log_text(), "[SAS] no server CA file (/root/sas/cert/serverCA/ca.pem)"), 2u)
        << log_text();
}

TEST_F(TlsProfileTest, UnconfiguredCaWithoutTheOptionStillTalksUnverified) {
    test::sim::Simulator sim;
    configure("\toption requireSasCa '0'\n", "");
    EXPECT_EQ(post(sim), 0);
    EXPECT_NE(log_text().find("[SAS] server CA file() is not exist, will not verify server.\n"),
              std::string::npos);
}

TEST_F(TlsProfileTest, StreakEndsWithTheFirstReplyAndTheNextFailureIsLoggedAgain) {
    configure("");
    {
        test::sim::Simulator weak("/v1.2", true, {"--ciphers", "AES128-SHA", "--tls-version", "1.2"});
        EXPECT_NE(post(weak), 0);
        EXPECT_NE(post(weak), 0);
    }
    {
        test::sim::Simulator good;
        EXPECT_EQ(post(good), 0);
        EXPECT_EQ(post(good), 0);
    }
    test::sim::Simulator weak("/v1.2", true, {"--ciphers", "AES128-SHA", "--tls-version", "1.2"});
    EXPECT_NE(post(weak), 0);
    std::string log = log_text();
    EXPECT_EQ(count(log, kRefusedLine), 2u) << log;
    EXPECT_EQ(count(log, "[SAS] TLS with the SAS succeeds again.\n"), 1u) << log;
}

}  // namespace
}  // namespace cbsd::sas
