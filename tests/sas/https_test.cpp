// The HTTPS transport against the SAS simulator on the sandbox's loopback,
// with real mutual TLS and the real credential paths under /root/sas/cert.
#include "sas/https.h"

#include "base/settings.h"
#include "sas/reply_reader.h"
#include "support/sas_simulator.h"
#include "https_support.h"
#include "support/test_util.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

namespace cbsd::sas {
namespace {

namespace fs = std::filesystem;
using test::read_file;
using test::write_file;
using https_test::kBody;
using https_test::log_text;

class HttpsTest : public ::testing::Test {
protected:
    void SetUp() override {
        https_test::clear_credentials_and_log();
        fs::remove(kReplyDumpPath);
    }

    // Installs the credentials and names them in section cert.
    static void provision(const test::sim::DeviceCerts& certs = {}) {
        ASSERT_TRUE(test::sim::install_device_certs(certs));
        configure(certs.clientCert, certs.clientKey, certs.serverCA);
    }
    static void configure(const std::string& cert, const std::string& key, const std::string& ca) {
        ASSERT_TRUE(write_file("/etc/config/sas", test::sim::cert_section(cert, key, ca)));
    }
    // The usual credentials with one field changed.
    static test::sim::DeviceCerts with(std::string test::sim::DeviceCerts::*field,
                                       const std::string& value) {
        test::sim::DeviceCerts certs;
        certs.*field = value;
        return certs;
    }
    static std::string dump() { return read_file(kReplyDumpPath); }
    // An empty grant request to the simulator.
    static PostReply post_grant(const test::sim::Simulator& sim) {
        return https_post(sim.endpoint_url("grant").c_str(), "{}");
    }
    // What the grant exchange's reader makes of these bytes.
    static ReplyReadResult read_grant(std::string_view bytes) {
        int32_t code = -1;
        SasReply grant;
        return read_sas_reply(bytes, "grantResponse", &grant, &code);
    }
};

TEST_F(HttpsTest, FullExchangePostsJsonWithClientCertificateAndDumpsTheReply) {
    test::sim::Simulator sim;
    ASSERT_TRUE(sim.running());
    provision();

    EXPECT_EQ(https_post(sim.endpoint_url("registration").c_str(), kBody).result, 0);

    auto requests = sim.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].endpoint, "registration");
    EXPECT_EQ(requests[0].path, "/v1.2/registration");
    EXPECT_EQ(requests[0].body, kBody);
    EXPECT_EQ(requests[0].accept, "application/json");
    EXPECT_EQ(requests[0].contentType, "application/json");
    EXPECT_EQ(requests[0].clientSubject, "O=CBSD Test,CN=cbsd-test-client");
    EXPECT_NE(dump().find("\"cbsdId\": \"sim/F1/S1\""), std::string::npos) << dump();
    EXPECT_NE(log_text().find("[SAS] https_post() return 0\n"), std::string::npos);
    EXPECT_EQ(log_text().find("is not exist"), std::string::npos);
}

// What an exchange writes on standard error, which procd makes system-log lines.
std::string standard_error_of_an_exchange(const test::sim::Simulator& sim) {
    std::fflush(stderr);
    int saved = dup(STDERR_FILENO);
    int capture = open("/tmp/exchange-stderr", O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(capture, STDERR_FILENO);
    close(capture);
    https_post(sim.endpoint_url("registration").c_str(), kBody);
    std::fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    return read_file("/tmp/exchange-stderr");
}

TEST_F(HttpsTest, LibcurlsTraceOnlyInDebugMode) {
    test::sim::Simulator sim;
    provision();
    base::settings().debug = 0;
    EXPECT_EQ(standard_error_of_an_exchange(sim), "");
    base::settings().debug = 1;
    EXPECT_NE(standard_error_of_an_exchange(sim).find("POST /v1.2/registration"),
              std::string::npos);
    base::settings().debug = 0;
}

TEST_F(HttpsTest, MissingClientCertificateSendsNothing) {
    test::sim::Simulator sim;
    provision(with(&test::sim::DeviceCerts::clientCert, ""));
    configure("cbsd.pem", "cbsd.key", "ca.pem");  // named but not installed

    EXPECT_EQ(https_post(sim.endpoint_url("registration").c_str(), kBody).result, -1);
    EXPECT_NE(log_text().find("[SAS] client cert file(/root/sas/cert/clientCert/cbsd.pem) is not exist.\n"),
              std::string::npos)
        << log_text();
    EXPECT_EQ(sim.connections(), 0);
    EXPECT_FALSE(test::file_exists(kReplyDumpPath));
}

TEST_F(HttpsTest, UnconfiguredClientCertificateSendsNothing) {
    test::sim::Simulator sim;
    provision();
    configure("", "cbsd.key", "ca.pem");

    EXPECT_EQ(https_post(sim.endpoint_url("registration").c_str(), kBody).result, -1);
    EXPECT_NE(log_text().find("[SAS] client cert file() is not exist.\n"), std::string::npos);
    EXPECT_EQ(sim.connections(), 0);
}

TEST_F(HttpsTest, MissingClientKeySendsNothing) {
    test::sim::Simulator sim;
    provision(with(&test::sim::DeviceCerts::clientKey, ""));
    configure("cbsd.pem", "cbsd.key", "ca.pem");

    EXPECT_EQ(https_post(sim.endpoint_url("registration").c_str(), kBody).result, -1);
    EXPECT_NE(log_text().find("[SAS] client key file(/root/sas/cert/clientKey/cbsd.key) is not exist.\n"),
              std::string::npos)
        << log_text();
    EXPECT_EQ(sim.connections(), 0);
}

TEST_F(HttpsTest, UnconfiguredCaTurnsPeerVerificationOff) {
    // The simulator's certificate comes from the test CA, which no system
    // bundle holds: the exchange succeeds only without verification.
    test::sim::Simulator sim;
    provision(with(&test::sim::DeviceCerts::serverCA, ""));

    EXPECT_EQ(https_post(sim.endpoint_url("registration").c_str(), kBody).result, 0);
    EXPECT_NE(log_text().find("[SAS] server CA file() is not exist, will not verify server.\n"),
              std::string::npos);
    EXPECT_EQ(sim.requests().size(), 1u);
}

TEST_F(HttpsTest, ConfiguredButMissingCaStillVerifiesAndFails) {
    test::sim::Simulator sim;
    provision(with(&test::sim::DeviceCerts::serverCA, ""));
    configure("cbsd.pem", "cbsd.key", "ca.pem");

    int32_t result = https_post(sim.endpoint_url("registration").c_str(), kBody).result;
    EXPECT_EQ(result, CURLE_SSL_CACERT_BADFILE);
    std::string log = log_text();
    EXPECT_NE(log.find("[SAS] server CA file(/root/sas/cert/serverCA/ca.pem) is not exist, will not "
                       "verify server.\n"),
              std::string::npos);
    EXPECT_NE(log.find("[SAS] libcurl: (77) "), std::string::npos) << log;
    EXPECT_NE(log.find("[SAS] https_post() return 77\n"), std::string::npos);
    EXPECT_TRUE(sim.requests().empty());
}

TEST_F(HttpsTest, ServerFromAnotherCaIsRejected) {
    test::sim::Simulator sim;
    provision(with(&test::sim::DeviceCerts::serverCASource, "other_ca.pem"));

    EXPECT_EQ(https_post(sim.endpoint_url("registration").c_str(), kBody).result,
              CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_TRUE(sim.requests().empty());
}

TEST_F(HttpsTest, CrlRevokingTheServerFailsTheHandshake) {
    test::sim::Simulator sim;
    provision(with(&test::sim::DeviceCerts::crl, "crl_server.pem"));

    EXPECT_NE(https_post(sim.endpoint_url("registration").c_str(), kBody).result, 0);
    EXPECT_TRUE(sim.requests().empty());
}

TEST_F(HttpsTest, CrlRevokingAnotherCertificateLetsTheExchangeThrough) {
    test::sim::Simulator sim;
    provision(with(&test::sim::DeviceCerts::crl, "crl_other.pem"));

    EXPECT_EQ(https_post(sim.endpoint_url("registration").c_str(), kBody).result, 0);
    EXPECT_EQ(sim.requests().size(), 1u);
}

TEST_F(HttpsTest, NoCrlFileMeansNoRevocationCheckAndNoMessage) {
    test::sim::Simulator sim;
    provision();

    EXPECT_EQ(https_post(sim.endpoint_url("registration").c_str(), kBody).result, 0);
    EXPECT_EQ(log_text().find("crl"), std::string::npos) << log_text();
}

TEST_F(HttpsTest, NullBodyPostsAnEmptyBody) {
    test::sim::Simulator sim;
    provision();

    EXPECT_EQ(https_post(sim.endpoint_url("deregistration").c_str(), nullptr).result, 0);
    auto requests = sim.requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].endpoint, "deregistration");
    EXPECT_EQ(requests[0].body, "");
}

TEST_F(HttpsTest, HtmlErrorPageLeavesTheDumpButNoParserTakesIt) {
    test::sim::Simulator sim;
    provision();
    ASSERT_EQ(https_post(sim.endpoint_url("registration").c_str(), kBody).result, 0);
    const std::string registrationReply = dump();
    ASSERT_NE(registrationReply.find("registrationResponse"), std::string::npos);

    ASSERT_TRUE(sim.push("grant", R"({"html_error": true})"));
    PostReply reply = post_grant(sim);
    EXPECT_EQ(reply.result, 0);
    EXPECT_EQ(dump(), registrationReply);

    // The previous exchange's reply is not this one's: no parser takes it.
    EXPECT_EQ(reply.httpStatus, 500);
    EXPECT_TRUE(reply.usable().empty());
    EXPECT_NE(log_text().find("[SAS] HTTP status 500, no usable reply in this exchange\n"),
              std::string::npos);
    int32_t code = -1;
    SasReply grant;
    EXPECT_EQ(read_sas_reply(reply.usable(), "grantResponse", &grant, &code),
              ReplyReadResult::kUnreadable);
    SasReply registration;
    EXPECT_EQ(read_sas_reply(reply.usable(), "registrationResponse", &registration, &code),
              ReplyReadResult::kUnreadable);
    EXPECT_EQ(code, -1);
}

TEST_F(HttpsTest, ReplyWithTheMarkerButAnErrorStatusIsNotUsed) {
    test::sim::Simulator sim;
    provision();
    ASSERT_TRUE(sim.push("grant", R"({"status": 503, "responseCode": 0})"));
    PostReply refused = post_grant(sim);
    EXPECT_EQ(refused.result, 0);
    EXPECT_NE(dump().find("grantResponse"), std::string::npos);
    EXPECT_EQ(refused.dumped, dump());
    EXPECT_TRUE(refused.usable().empty());
    ASSERT_TRUE(sim.push("grant", R"({"responseCode": 0})"));
    PostReply answered = post_grant(sim);
    EXPECT_EQ(answered.result, 0);
    EXPECT_EQ(answered.usable(), dump());
}

TEST_F(HttpsTest, ADumpThatCannotBeWrittenHidesNoReplyAndShowsNoOldOne) {
    test::sim::Simulator sim;
    provision();
    // A dump path that cannot be opened for writing, as on a full /tmp.
    fs::create_directories(kReplyDumpPath);
    ASSERT_TRUE(sim.push("heartbeat", R"({"responseCode": 500})"));
    PostReply reply = https_post(sim.endpoint_url("heartbeat").c_str(), "{}");
    EXPECT_EQ(reply.result, 0);
    EXPECT_TRUE(fs::is_directory(kReplyDumpPath));
    // This exchange's own answer, a refusal, is what the parsers read.
    SasReply heartbeat;
    int32_t code = -1;
    EXPECT_EQ(read_sas_reply(reply.usable(), "heartbeatResponse", &heartbeat, &code),
              ReplyReadResult::kRead);
    EXPECT_EQ(code, 500);
    fs::remove(kReplyDumpPath);
}

TEST_F(HttpsTest, EmptyReplyMakesTheOldDumpStale) {
    test::sim::Simulator sim;
    provision();
    ASSERT_TRUE(write_file(kReplyDumpPath, R"({"heartbeatResponse": []})"));
    ASSERT_TRUE(sim.push("heartbeat", R"({"body": ""})"));
    PostReply reply = https_post(sim.endpoint_url("heartbeat").c_str(), "{}");
    EXPECT_EQ(reply.result, 0);
    EXPECT_EQ(reply.httpStatus, 200);
    // The old dump is no part of this exchange's reply: nothing to parse.
    EXPECT_TRUE(reply.usable().empty());
    EXPECT_EQ(dump(), R"({"heartbeatResponse": []})");
}

TEST_F(HttpsTest, EmptyReplyLeavesTheDumpAsItWas) {
    test::sim::Simulator sim;
    provision();
    ASSERT_TRUE(write_file(kReplyDumpPath, "previous reply"));
    ASSERT_TRUE(sim.push("heartbeat", R"({"body": ""})"));

    EXPECT_EQ(https_post(sim.endpoint_url("heartbeat").c_str(), "{}").result, 0);
    EXPECT_EQ(dump(), "previous reply");
}

TEST_F(HttpsTest, NonJsonReplyWithTheMarkerIsDumpedAndUnreadable) {
    test::sim::Simulator sim;
    provision();
    ASSERT_TRUE(sim.push("grant", R"({"body": "grantResponse is not JSON"})"));

    PostReply posted = post_grant(sim);
    EXPECT_EQ(posted.result, 0);
    EXPECT_EQ(dump(), "grantResponse is not JSON");
    EXPECT_EQ(posted.usable(), "grantResponse is not JSON");
    EXPECT_EQ(read_grant(posted.usable()), ReplyReadResult::kUnreadable);
}

TEST_F(HttpsTest, SecondChunkWithTheMarkerReplacesTheFirst) {
    test::sim::Simulator sim;
    provision();
    ASSERT_TRUE(sim.push("grant", R"({"chunks": ["{\"aResponse\": 1}", "{\"bResponse\": 2}"]})"));

    EXPECT_EQ(post_grant(sim).result, 0);
    EXPECT_EQ(dump(), R"({"bResponse": 2})");
}

TEST_F(HttpsTest, SecondChunkWithoutTheMarkerKeepsTheFirstInTheDump) {
    test::sim::Simulator sim;
    provision();
    ASSERT_TRUE(sim.push("grant", R"({"chunks": ["{\"grantResponse\": [", "]}"]})"));

    PostReply posted = post_grant(sim);
    EXPECT_EQ(posted.result, 0);
    EXPECT_EQ(dump(), R"({"grantResponse": [)");
    EXPECT_EQ(posted.usable(), dump());
    // The parser therefore sees a cut reply.
    EXPECT_EQ(read_grant(posted.usable()), ReplyReadResult::kUnreadable);
}

TEST_F(HttpsTest, OnlyTheLastChunkWithTheMarkerCountsWhenTheFirstLacksIt) {
    test::sim::Simulator sim;
    provision();
    ASSERT_TRUE(sim.push("grant", R"({"chunks": ["no marker here", "{\"grantResponse\": []}"]})"));

    EXPECT_EQ(post_grant(sim).result, 0);
    EXPECT_EQ(dump(), R"({"grantResponse": []})");
}

// libcurl hands the write callback at most CURL_MAX_WRITE_SIZE (16384) bytes
// at a time, so bodies of 20480 and 20481 bytes both arrive in pieces: the
// transfer completes and the dump holds the last piece that had the marker,
// a cut prefix of the body.
class HttpsBodySizeTest : public HttpsTest, public ::testing::WithParamInterface<int> {};

TEST_P(HttpsBodySizeTest, LargeBodyArrivesInPiecesAndOnlyAPrefixIsDumped) {
    test::sim::Simulator sim;
    provision();
    ASSERT_TRUE(sim.push("grant", R"({"size": )" + std::to_string(GetParam()) + "}"));

    EXPECT_EQ(post_grant(sim).result, 0);
    std::string dumped = dump();
    EXPECT_GT(dumped.size(), 0u);
    EXPECT_LE(dumped.size(), static_cast<size_t>(CURL_MAX_WRITE_SIZE));
    EXPECT_EQ(dumped.rfind("{\n  \"grantResponse\"", 0), 0u) << dumped.substr(0, 40);
}

INSTANTIATE_TEST_SUITE_P(ExactSizes, HttpsBodySizeTest, ::testing::Values(20480, 20481));

TEST_F(HttpsTest, ClosedConnectionIsATransferError) {
    test::sim::Simulator sim;
    provision();
    ASSERT_TRUE(sim.push("heartbeat", R"({"close": true})"));

    EXPECT_EQ(https_post(sim.endpoint_url("heartbeat").c_str(), "{}").result, CURLE_GOT_NOTHING);
    std::string log = log_text();
    EXPECT_NE(log.find("[SAS] libcurl: (52) "), std::string::npos) << log;
    EXPECT_NE(log.find("[SAS] https_post() return 52\n"), std::string::npos);
}

TEST_F(HttpsTest, RefusedConnectionLogsTheCurlError) {
    provision();
    // Nothing listens on port 1 in the sandbox's own network namespace.
    EXPECT_EQ(https_post("https://127.0.0.1:1/v1.2/registration", kBody).result, CURLE_COULDNT_CONNECT);
    std::string log = log_text();
    size_t at = log.find("[SAS] libcurl: (7) ");
    ASSERT_NE(at, std::string::npos) << log;
    // The error text follows as its own log call, ending in exactly one newline.
    std::string rest = log.substr(at);
    EXPECT_NE(rest.find("]Failed to connect to 127.0.0.1 port 1"), std::string::npos) << rest;
}

// The SAS's clock as its reply's Date header states it, for this exchange only.
TEST_F(HttpsTest, TheReplyStatesTheSasClockUntilTheNextExchange) {
    test::sim::Simulator sim;
    provision();
    PostReply answered = https_post(sim.endpoint_url("registration").c_str(), kBody);
    ASSERT_EQ(answered.result, 0);
    ASSERT_TRUE(answered.dated);
    EXPECT_NEAR(static_cast<double>(answered.date), static_cast<double>(std::time(nullptr)), 5.0);

    PostReply failed = https_post("https://127.0.0.1:1/v1.2/registration", kBody);
    EXPECT_EQ(failed.result, CURLE_COULDNT_CONNECT);
    EXPECT_FALSE(failed.dated);
}

TEST_F(HttpsTest, MissingUrlIsASetupFailure) {
    EXPECT_EQ(post_json(nullptr, "{}", "", "", "", "").result, -1);
    EXPECT_NE(log_text().find("[SAS] curl[ok], strUrl[(null)]\n"), std::string::npos) << log_text();
}

// The one test that waits for a libcurl time-out: the simulator holds the TLS
// handshake back, and the 10 s connect time-out ends the attempt.
TEST_F(HttpsTest, StalledHandshakeHitsTheTenSecondConnectTimeout) {
    test::sim::Simulator sim;
    provision();
    ASSERT_TRUE(sim.push_connection(R"({"handshake_delay": 13})"));

    auto start = std::chrono::steady_clock::now();
    int32_t result = https_post(sim.endpoint_url("registration").c_str(), kBody).result;
    double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(result, CURLE_OPERATION_TIMEDOUT);
    EXPECT_GE(waited, 9.5);
    EXPECT_LT(waited, 12.5);
    EXPECT_TRUE(sim.requests().empty());
}

// Cost of one exchange (TLS handshake included, nothing reused) on loopback,
// printed for the record; the bound only catches a transfer that stalls.
TEST_F(HttpsTest, OneExchangeTimeAndPeakMemory) {
    test::sim::Simulator sim;
    provision();
    auto peak_kb = [] {
        std::string status = read_file("/proc/self/status");
        size_t at = status.find("VmHWM:");
        return at == std::string::npos ? 0L : std::stol(status.substr(at + 6));
    };
    long before = peak_kb();
    double slowest = 0;
    std::string times;
    for (int i = 0; i < 5; ++i) {
        auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(https_post(sim.endpoint_url("heartbeat").c_str(), kBody).result, 0);
        double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        slowest = std::max(slowest, took);
        times += " " + std::to_string(static_cast<int>(took * 1000)) + " ms";
    }
    long after = peak_kb();
    std::printf("exchanges:%s; VmHWM %ld kB before, %ld kB after\n", times.c_str(), before, after);
    RecordProperty("slowest_exchange_ms", static_cast<int>(slowest * 1000));
    RecordProperty("vmhwm_after_kb", static_cast<int>(after));
    EXPECT_LT(slowest, 3.0);
}

// The write callback on its own: a chunk with the marker replaces the
// previous one, in the reply and in the dump.
class SaveResponseTest : public HttpsTest {
protected:
    PostReply reply_;
};

TEST_F(SaveResponseTest, ChunkOfExactlyTheBufferSizeIsKeptWhole) {
    std::string chunk(kResponseBufferSize, 'x');
    chunk.replace(100, 8, "Response");
    EXPECT_EQ(save_response(chunk.data(), 1, chunk.size(), &reply_), kResponseBufferSize);
    EXPECT_EQ(reply_.dumped, chunk);
    EXPECT_EQ(dump(), chunk);
}

TEST_F(SaveResponseTest, ChunkOneByteTooLargeIsCutAndSignalsAbort) {
    std::string chunk(kResponseBufferSize + 1, 'y');
    chunk.replace(0, 8, "Response");
    EXPECT_EQ(save_response(chunk.data(), 1, chunk.size(), &reply_), kResponseBufferSize - 1);
    EXPECT_EQ(reply_.dumped, chunk.substr(0, kResponseBufferSize - 1));
    EXPECT_EQ(dump(), chunk.substr(0, kResponseBufferSize - 1));
}

TEST_F(SaveResponseTest, LaterChunkReplacesEarlierOneAndLeavesNoTail) {
    std::string first(300, 'a');
    first.replace(0, 8, "Response");
    save_response(first.data(), 3, 100, &reply_);
    save_response(const_cast<char*>("shortResponse"), 1, 13, &reply_);
    EXPECT_EQ(reply_.dumped, "shortResponse");
    EXPECT_EQ(dump(), "shortResponse");
}

TEST_F(SaveResponseTest, ChunksWithoutTheMarkerAreNeitherKeptNorDumped) {
    std::string first(300, 'a');
    EXPECT_EQ(save_response(first.data(), 3, 100, &reply_), 300u);
    EXPECT_EQ(save_response(const_cast<char*>("short"), 1, 5, &reply_), 5u);
    EXPECT_TRUE(reply_.dumped.empty());
    EXPECT_FALSE(test::file_exists(kReplyDumpPath));
}

TEST_F(SaveResponseTest, MarkerAfterAnEmbeddedNulStillCounts) {
    const char chunk[] = "ab\0xyResponse";
    EXPECT_EQ(save_response(const_cast<char*>(chunk), 1, sizeof chunk - 1, &reply_), sizeof chunk - 1);
    EXPECT_EQ(reply_.dumped, std::string(chunk, sizeof chunk - 1));
    EXPECT_EQ(dump(), std::string(chunk, sizeof chunk - 1));
}

}  // namespace
}  // namespace cbsd::sas
