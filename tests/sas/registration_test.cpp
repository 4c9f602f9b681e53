#include "sas/registration.h"

#include "body_assertions.h"
#include "exchange_fixture.h"
#include "sas/exchanges.h"
#include "cpi_key_fixture.h"
#include "config/uci_store.h"
#include "sas/request_body.h"

#include <gtest/gtest.h>
#include <jansson.h>
#include <openssl/evp.h>

#include <cstring>
#include <string>
#include <vector>

namespace cbsd::sas {
namespace {

using test::integer_member;
using test::ParsedBody;
using test::string_member;

std::string base64url_text(std::string text) {
    for (char& c : text) c = c == '-' ? '+' : c == '_' ? '/' : c;
    while (text.size() % 4) text += '=';
    std::vector<unsigned char> out(text.size());
    int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                            static_cast<int>(text.size()));
    size_t padding = text.size() - text.find_last_not_of('=') - 1;
    return n < 0 ? std::string()
                 : std::string(out.begin(), out.begin() + (n - static_cast<long>(padding)));
}

class RegistrationBodyTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::prepare_log_directory();
        record = test::sample_device_record();
    }

    int32_t build() { return build_registration_body(&record, &options, body, sizeof body); }

    void use_single_step(const char* keyName, const char* password) {
        options.singleStep = true;
        base::copy_text(options.cpiKeyFileName, sizeof options.cpiKeyFileName, keyName);
        base::copy_text(options.cpiKeyPassword, sizeof options.cpiKeyPassword, password);
    }

    // The installation object carried, signed, in encodedCpiSignedData.
    json_t* signed_installation(const ParsedBody& parsed) {
        json_t* signature = parsed.get("cpiSignatureData");
        return json_loads(base64url_text(string_member(signature, "encodedCpiSignedData")).c_str(),
                          0, nullptr);
    }

    config::DeviceRecord record{};
    RegistrationOptions options{};
    char body[kRequestBodyCapacity];
};

TEST_F(RegistrationBodyTest, TwoStepBodyCarriesIdentityWithExactTypes) {
    ASSERT_EQ(0, build());
    ParsedBody parsed(body, "registrationRequest");
    ASSERT_NE(nullptr, parsed.element());
    EXPECT_EQ(8u, json_object_size(parsed.element()));
    EXPECT_EQ("operator-1", string_member(parsed.element(), "userId"));
    EXPECT_EQ("FCC-TEST-1", string_member(parsed.element(), "fccId"));
    EXPECT_EQ("SN0001", string_member(parsed.element(), "cbsdSerialNumber"));
    EXPECT_EQ("CALL1", string_member(parsed.element(), "callSign"));
    EXPECT_EQ("A", string_member(parsed.element(), "cbsdCategory"));

    json_t* air = parsed.get("airInterface");
    ASSERT_TRUE(json_is_object(air));
    EXPECT_EQ(1u, json_object_size(air));
    EXPECT_EQ("E_UTRA", string_member(air, "radioTechnology"));

    json_t* grouping = parsed.get("groupingParam");
    ASSERT_TRUE(json_is_array(grouping));
    ASSERT_EQ(1u, json_array_size(grouping));
    EXPECT_EQ("INTERFERENCE_COORDINATION", string_member(json_array_get(grouping, 0), "groupType"));
    EXPECT_EQ("group-7", string_member(json_array_get(grouping, 0), "groupId"));

    EXPECT_EQ(nullptr, parsed.get("cpiSignatureData"));
    EXPECT_EQ(nullptr, parsed.get("installationParam"));
}

TEST_F(RegistrationBodyTest, BodyIsIndentedByTwoAndLogged) {
    ASSERT_EQ(0, build());
    EXPECT_EQ(0, std::strncmp(body, "{\n  \"registrationRequest\": [\n    {\n      \"", 40));
    EXPECT_NE(std::string::npos, test::log_text().find(std::string("[SAS] ") + body + "\n"));
}

TEST_F(RegistrationBodyTest, EmptyGroupTextsStillSendOneGroupObject) {
    record.groupId[0] = '\0';
    record.groupType[0] = '\0';
    ASSERT_EQ(0, build());
    ParsedBody parsed(body, "registrationRequest");
    json_t* grouping = parsed.get("groupingParam");
    ASSERT_EQ(1u, json_array_size(grouping));
    EXPECT_EQ("", string_member(json_array_get(grouping, 0), "groupType"));
    EXPECT_EQ("", string_member(json_array_get(grouping, 0), "groupId"));
}

TEST_F(RegistrationBodyTest, MeasCapabilityWithReceivedIsSentAsOneElement) {
    for (const char* capability : {"RECEIVED_POWER_WITHOUT_GRANT", "RECEIVED_POWER_WITH_GRANT"}) {
        base::copy_text(record.measCapability, sizeof record.measCapability, capability);
        ASSERT_EQ(0, build());
        ParsedBody parsed(body, "registrationRequest");
        json_t* capabilities = parsed.get("measCapability");
        ASSERT_TRUE(json_is_array(capabilities));
        ASSERT_EQ(1u, json_array_size(capabilities));
        EXPECT_STREQ(capability, json_string_value(json_array_get(capabilities, 0)));
    }
}

TEST_F(RegistrationBodyTest, MeasCapabilityWithoutReceivedIsAnEmptyArray) {
    for (const char* capability : {"", "NONE", "received_power"}) {
        base::copy_text(record.measCapability, sizeof record.measCapability, capability);
        ASSERT_EQ(0, build());
        ParsedBody parsed(body, "registrationRequest");
        json_t* capabilities = parsed.get("measCapability");
        ASSERT_TRUE(json_is_array(capabilities)) << capability;
        EXPECT_EQ(0u, json_array_size(capabilities)) << capability;
    }
}

TEST_F(RegistrationBodyTest, SingleStepWithoutKeyNameSendsNothing) {
    use_single_step("", "");
    EXPECT_EQ(-1, build());
    EXPECT_EQ('\0', body[0]);
    EXPECT_NE(std::string::npos, test::log_text().find("[SAS] SAS_CERTNAME is invalid!\n\n"));
}

TEST_F(RegistrationBodyTest, SingleStepWithMissingKeyFileSendsNothing) {
    use_single_step("absent.pem", "");
    EXPECT_EQ(-1, build());
    EXPECT_EQ('\0', body[0]);
    EXPECT_NE(std::string::npos,
              test::log_text().find("[SAS] /root/sas/cert/cpiKey/absent.pem does not exist!\n\n"));
}

TEST_F(RegistrationBodyTest, SingleStepSignsInstallationDataWithExactTypes) {
    ASSERT_TRUE(test::make_cpi_keys());
    use_single_step("rsa.p12", test::kCpiPassword);
    ASSERT_EQ(0, build());
    ParsedBody parsed(body, "registrationRequest");
    json_t* signature = parsed.get("cpiSignatureData");
    ASSERT_TRUE(json_is_object(signature));
    EXPECT_EQ(3u, json_object_size(signature));
    EXPECT_NE("", string_member(signature, "protectedHeader"));
    EXPECT_NE("", string_member(signature, "digitalSignature"));
    // Installation data travel only inside the signed part.
    EXPECT_EQ(nullptr, parsed.get("installationParam"));

    json_t* installation = signed_installation(parsed);
    ASSERT_TRUE(json_is_object(installation));
    EXPECT_EQ(4u, json_object_size(installation));
    EXPECT_EQ("FCC-TEST-1", string_member(installation, "fccId"));
    EXPECT_EQ("SN0001", string_member(installation, "cbsdSerialNumber"));

    json_t* param = json_object_get(installation, "installationParam");
    ASSERT_TRUE(json_is_object(param));
    EXPECT_EQ(12u, json_object_size(param));
    ASSERT_TRUE(json_is_real(json_object_get(param, "latitude")));
    EXPECT_DOUBLE_EQ(30.2672, json_real_value(json_object_get(param, "latitude")));
    ASSERT_TRUE(json_is_real(json_object_get(param, "longitude")));
    EXPECT_DOUBLE_EQ(-97.7431, json_real_value(json_object_get(param, "longitude")));
    ASSERT_TRUE(json_is_real(json_object_get(param, "height")));
    EXPECT_DOUBLE_EQ(6.5, json_real_value(json_object_get(param, "height")));
    EXPECT_EQ("AGL", string_member(param, "heightType"));
    EXPECT_TRUE(json_is_true(json_object_get(param, "indoorDeployment")));
    EXPECT_EQ(5, integer_member(param, "antennaGain"));  // 5.5 is sent as an integer
    EXPECT_EQ(65, integer_member(param, "antennaBeamwidth"));
    EXPECT_EQ(3, integer_member(param, "antennaDowntilt"));
    EXPECT_EQ(270, integer_member(param, "antennaAzimuth"));
    EXPECT_EQ("ANT-1", string_member(param, "antennaModel"));
    EXPECT_EQ(3, integer_member(param, "horizontalAccuracy"));
    EXPECT_EQ(3, integer_member(param, "verticalAccuracy"));

    json_t* installer = json_object_get(installation, "professionalInstallerData");
    ASSERT_TRUE(json_is_object(installer));
    EXPECT_EQ(3u, json_object_size(installer));
    EXPECT_EQ("cpi-42", string_member(installer, "cpiId"));
    EXPECT_EQ("Pat Installer", string_member(installer, "cpiName"));
    EXPECT_EQ("2024-01-02T03:04:05Z", string_member(installer, "installCertificationTime"));
    json_decref(installation);
}

TEST_F(RegistrationBodyTest, IndoorDeploymentIsTrueForAnyNonZeroInteger) {
    ASSERT_TRUE(test::make_cpi_keys());
    use_single_step("rsa_pkcs1.pem", "");
    struct Case {
        const char* text;
        bool indoor;
    } cases[] = {{"0", false}, {"1", true}, {"2", true}, {"abc", false}, {"", false}};
    for (const Case& c : cases) {
        base::copy_text(record.indoorDeployment, sizeof record.indoorDeployment, c.text);
        ASSERT_EQ(0, build());
        ParsedBody parsed(body, "registrationRequest");
        json_t* installation = signed_installation(parsed);
        json_t* indoor =
            json_object_get(json_object_get(installation, "installationParam"), "indoorDeployment");
        ASSERT_TRUE(json_is_boolean(indoor)) << c.text;
        EXPECT_EQ(c.indoor, json_is_true(indoor)) << c.text;
        json_decref(installation);
    }
}

TEST_F(RegistrationBodyTest, FailedSigningStillSendsThreeEmptyParts) {
    ASSERT_TRUE(test::make_cpi_keys());
    use_single_step("rsa.p12", "wrong-password");
    testing::internal::CaptureStderr();
    int32_t result = build();
    std::string errors = testing::internal::GetCapturedStderr();
    ASSERT_EQ(0, result);
    EXPECT_NE(std::string::npos,
              errors.find("Error: parse /root/sas/cert/cpiKey/rsa.p12 error.\n\n"));
    ParsedBody parsed(body, "registrationRequest");
    json_t* signature = parsed.get("cpiSignatureData");
    EXPECT_EQ("", string_member(signature, "protectedHeader"));
    EXPECT_EQ("", string_member(signature, "encodedCpiSignedData"));
    EXPECT_EQ("", string_member(signature, "digitalSignature"));
}

// Control characters are escaped six-fold, so long configured texts can
// outgrow the 4096-byte body; such a body is refused, never cut.
TEST_F(RegistrationBodyTest, BodyThatDoesNotFitIsRefusedWhole) {
    std::string controls(127, '\x01');
    for (char* field :
         {record.userId, record.fccId, record.serialNumber, record.callSign, record.groupId})
        base::copy_text(field, 128, controls.c_str());
    EXPECT_EQ(-1, build());
    EXPECT_EQ(std::string(sizeof body, '\0'), std::string(body, sizeof body));
    EXPECT_NE(std::string::npos, test::log_text().find("[SAS] request message too long ("));
    EXPECT_NE(std::string::npos, test::log_text().find(" bytes, limit 4095), not sent\n"));
}

TEST_F(RegistrationBodyTest, BodyOfExactlyCapacityLessOneFits) {
    ASSERT_EQ(0, build());
    size_t length = std::strlen(body);
    char exact[kRequestBodyCapacity];
    EXPECT_EQ(0, build_registration_body(&record, &options, exact, length + 1));
    EXPECT_STREQ(body, exact);
    EXPECT_EQ(-1, build_registration_body(&record, &options, exact, length));
}

TEST_F(RegistrationBodyTest, TextThatIsNotUtf8IsSentEmptyWithALogLine) {
    base::copy_text(record.callSign, sizeof record.callSign, "bad\xff");
    ASSERT_EQ(0, build());
    ParsedBody parsed(body, "registrationRequest");
    EXPECT_EQ("", string_member(parsed.element(), "callSign"));
    EXPECT_NE(std::string::npos,
              test::log_text().find("[SAS] callSign is not valid UTF-8, sent empty\n"));
}

// --- the reply ---

constexpr char kRegistrationMember[] = "registrationResponse";

class RegistrationReplyTest
    : public test::ReplyParserTest<RegistrationResponse, kRegistrationMember,
                                   parse_registration_response> {
protected:
    void SetUp() override {
        ReplyParserTest::SetUp();
        base::copy_text(reply.cbsdId, sizeof reply.cbsdId, "previous");
    }
};

TEST_F(RegistrationReplyTest, SuccessCopiesCbsdId) {
    EXPECT_EQ(0, parse(R"({"cbsdId":"id-1","response":{"responseCode":0}})"));
    EXPECT_EQ(0, reply.responseCode);
    EXPECT_STREQ("id-1", reply.cbsdId);
}

TEST_F(RegistrationReplyTest, SuccessWithoutCbsdIdKeepsThePreviousId) {
    EXPECT_EQ(0, parse(R"({"response":{"responseCode":0}})"));
    EXPECT_STREQ("previous", reply.cbsdId);
}

TEST_F(RegistrationReplyTest, CbsdIdThatIsNoStringIsIgnored) {
    EXPECT_EQ(0, parse(R"({"cbsdId":17,"response":{"responseCode":0}})"));
    EXPECT_STREQ("previous", reply.cbsdId);
}

TEST_F(RegistrationReplyTest, LongCbsdIdIsCutTo127) {
    EXPECT_EQ(0, parse(R"({"cbsdId":")" + std::string(300, 'i') +
                       R"(","response":{"responseCode":0}})"));
    EXPECT_EQ(std::string(127, 'i'), reply.cbsdId);
}

TEST_F(RegistrationReplyTest, RefusalKeepsTheCodeAndTheId) {
    EXPECT_EQ(-1, parse(R"({"cbsdId":"id-2","response":{"responseCode":200}})"));
    EXPECT_EQ(200, reply.responseCode);
    EXPECT_STREQ("previous", reply.cbsdId);
}

TEST_F(RegistrationReplyTest, OnlyTheFirstElementCounts) {
    EXPECT_EQ(0, parse(R"({"cbsdId":"first","response":{"responseCode":0}},)"
                       R"({"cbsdId":"second","response":{"responseCode":103}})"));
    EXPECT_STREQ("first", reply.cbsdId);
}

TEST_F(RegistrationReplyTest, ElementWithoutResponseIsNoSuccess) {
    EXPECT_EQ(-1, parse(R"({"cbsdId":"id-3"})"));
    EXPECT_EQ(-1, reply.responseCode);
    EXPECT_STREQ("previous", reply.cbsdId);  // nothing taken from it
}

TEST_F(RegistrationReplyTest, MissingOrNonObjectDumpIsReportedAsWrongResponse) {
    EXPECT_EQ(-1, parse_registration_response(test::reply_bytes(), &reply));
    EXPECT_EQ(-1, reply.responseCode);
    test::write_reply(R"([{"registrationResponse":[]}])");
    EXPECT_EQ(-1, parse_registration_response(test::reply_bytes(), &reply));
    test::write_reply("<html>500</html>");
    EXPECT_EQ(-1, parse_registration_response(test::reply_bytes(), &reply));
    std::string log = test::log_text();
    size_t first = log.find("[SAS] wrong Response from SAS Server!\n\n");
    ASSERT_NE(std::string::npos, first);
    EXPECT_NE(std::string::npos, log.find("[SAS] wrong Response from SAS Server!\n\n", first + 1));
    EXPECT_EQ(-1, reply.responseCode);
    EXPECT_STREQ("previous", reply.cbsdId);
}

TEST_F(RegistrationReplyTest, StaleReplyOfAnotherMessageFailsSilently) {
    test::write_reply(R"({"grantResponse":[{"cbsdId":"x","response":{"responseCode":0}}]})");
    EXPECT_EQ(-1, parse_registration_response(test::reply_bytes(), &reply));
    EXPECT_EQ(-1, reply.responseCode);
    EXPECT_EQ(std::string::npos, test::log_text().find("wrong Response"));
}

// --- configuration and the exchange against the simulator ---

TEST(RegistrationOptions, SingleStepOnlyForStepChoiceOne) {
    test::prepare_log_directory();
    const std::string cert =
        "config cert 'cert'\n\toption cpiKeyFileName 'k.pem'\n\toption cpiKeyFilePassword 'pw'\n\n";
    for (const char* choice : {"0", "2", ""}) {
        std::string config = cert;
        if (*choice)
            config +=
                std::string("config config 'config'\n\toption sasStepChoice '") + choice + "'\n";
        ASSERT_TRUE(test::write_file("/etc/config/sas", config));
        RegistrationOptions options{};
        load_registration_options(&options);
        EXPECT_FALSE(options.singleStep) << choice;
        EXPECT_STREQ("", options.cpiKeyFileName) << choice;
    }
    ASSERT_TRUE(test::write_file("/etc/config/sas",
                                 cert + "config config 'config'\n\toption sasStepChoice '1'\n"));
    RegistrationOptions options{};
    load_registration_options(&options);
    EXPECT_TRUE(options.singleStep);
    EXPECT_STREQ("k.pem", options.cpiKeyFileName);
    EXPECT_STREQ("", options.cpiKeyPassword);  // no key file, so no password looked up

    mkdir("/root/sas/cert", 0755);
    mkdir("/root/sas/cert/cpiKey", 0755);
    ASSERT_TRUE(test::write_file("/root/sas/cert/cpiKey/k.pem", "key"));
    load_registration_options(&options);
    EXPECT_STREQ("k.pem", options.cpiKeyFileName);
    EXPECT_STREQ("pw", options.cpiKeyPassword);
}

class RegistrationExchangeTest : public test::ExchangeTest {};

TEST_F(RegistrationExchangeTest, TwoStepRegistrationReachesTheSasAndYieldsTheId) {
    ASSERT_EQ(0, test::posted(registeration_request(
                         sas::https_transport(), url.c_str(), &record)));
    test::ReceivedBodies bodies(received("registration"), "registrationRequest");
    ASSERT_EQ(1u, bodies.size());
    json_t* sent = bodies.element(0);
    EXPECT_EQ("FCC-TEST-1", string_member(sent, "fccId"));
    EXPECT_EQ("SN0001", string_member(sent, "cbsdSerialNumber"));
    EXPECT_EQ(nullptr, json_object_get(sent, "cpiSignatureData"));
    EXPECT_NE(std::string::npos, test::log_text().find("[SAS] URL = " + url + "/registration\n"));

    RegistrationResponse reply{};
    EXPECT_EQ(0, parse_registration_response(test::reply_bytes(), &reply));
    EXPECT_STREQ("sim/FCC-TEST-1/SN0001", reply.cbsdId);
}

TEST_F(RegistrationExchangeTest, SingleStepRegistrationSendsSignedInstallationData) {
    ASSERT_TRUE(test::make_cpi_keys());
    ASSERT_TRUE(test::write_file("/etc/config/sas",
                                 test::sim::cert_section("cbsd.pem", "cbsd.key", "ca.pem") +
                                     "config config 'config'\n\toption sasStepChoice '1'\n\n"));
    config::config_set("/etc/config/sas", "cert", "cpiKeyFileName", "rsa.p12");
    config::config_set("/etc/config/sas", "cert", "cpiKeyFilePassword", test::kCpiPassword);
    ASSERT_EQ(0, test::posted(registeration_request(
                         sas::https_transport(), url.c_str(), &record)));
    test::ReceivedBodies bodies(received("registration"), "registrationRequest");
    ASSERT_EQ(1u, bodies.size());
    json_t* signature = json_object_get(bodies.element(0), "cpiSignatureData");
    ASSERT_TRUE(json_is_object(signature));
    json_t* installation = json_loads(
        base64url_text(string_member(signature, "encodedCpiSignedData")).c_str(), 0, nullptr);
    EXPECT_EQ("cpi-42",
              string_member(json_object_get(installation, "professionalInstallerData"), "cpiId"));
    json_decref(installation);
    EXPECT_NE("", string_member(signature, "digitalSignature"));
}

TEST_F(RegistrationExchangeTest, SingleStepWithoutKeyNameSendsNothing) {
    ASSERT_TRUE(test::write_file("/etc/config/sas",
                                 test::sim::cert_section("cbsd.pem", "cbsd.key", "ca.pem") +
                                     "config config 'config'\n\toption sasStepChoice '1'\n\n"));
    EXPECT_EQ(-1, test::posted(registeration_request(
                         sas::https_transport(), url.c_str(), &record)));
    EXPECT_EQ(0u, request_count());
}

TEST_F(RegistrationExchangeTest, OversizeBodyIsNeverPosted) {
    std::string controls(127, '\x01');
    for (char* field :
         {record.userId, record.fccId, record.serialNumber, record.callSign, record.groupId})
        base::copy_text(field, 128, controls.c_str());
    EXPECT_EQ(-1, test::posted(registeration_request(
                         sas::https_transport(), url.c_str(), &record)));
    EXPECT_EQ(0u, request_count());
    EXPECT_NE(std::string::npos, test::log_text().find("[SAS] request message too long ("));
}

}  // namespace
}  // namespace cbsd::sas
