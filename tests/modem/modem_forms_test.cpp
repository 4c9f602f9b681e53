// The modem queries on every form the real `ubus` CLI gives them: replies
// whose last member has no comma, real-valued members ("%f"), an empty reply
// (a tab-only line), no reply data, a failing method in the current and the
// pre-2022 error form, a time-out, an object not registered and no ubusd.
// The lab's stand-in prints these forms byte for byte as the real CLI does
// (tests/system/test_real_ubus.py compares the two).
#include "modem/lab_modem.h"
#include "modem/line_filter.h"
#include "modem/modem.h"
#include "modem/modem_output.h"
#include "modem/product_query.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace cbsd::modem {
namespace {

// What the CLI prints on standard output for one method.
std::string cli_output(const char* method) {
    return test::shell(std::string("ubus call ubus_lte ") + method + " 2>/dev/null");
}

// The lines the daemon's filter keeps of that output.
std::string kept(const std::string& output, const char* pattern, bool whole_word) {
    std::vector<char> buffer(1024, '\0');
    LineFilter filter(pattern, whole_word, buffer.data(), static_cast<int>(buffer.size()));
    filter.feed(output.data(), output.size());
    filter.finish();
    return buffer.data();
}

int number_of(const std::string& line) {
    int value = -12345;
    EXPECT_TRUE(parse_number(line.c_str(), &value)) << line;
    return value;
}

std::string quoted_of(const std::string& line) {
    char buffer[64] = {};
    EXPECT_TRUE(parse_quoted_value(line.c_str(), buffer, sizeof buffer - 1)) << line;
    return buffer;
}

class ModemForms : public ::testing::Test {
protected:
    void SetUp() override {
        mkdir("/root/sas", 0755);
        test::write_file("/root/sas/sas.log", "");
    }
};

TEST_F(ModemForms, LastMembersHaveNoCommaAndReadAsBefore) {
    test::set_lab_modem(R"({"productmodule": "RQ5518L-M2", "SN": "QW0042", "netstat": 4,
                           "dlfreq": 3625000, "bandwidth": 20, "band": 48})");
    std::string info = cli_output("getlteinfo");
    ASSERT_EQ(info, "{\n\t\"dlfreq\": 3625000,\n\t\"bandwidth\": 20,\n\t\"band\": 48\n}\n");
    EXPECT_EQ(kept(info, "band", true), "\t\"band\": 48\n");
    EXPECT_EQ(number_of(kept(info, "band", true)), 48);
    std::string product = cli_output("getproductinfo");
    EXPECT_EQ(kept(product, "SN", false), "\t\"SN\": \"QW0042\"\n");
    EXPECT_EQ(quoted_of(kept(product, "SN", false)), "QW0042");
    std::string status = cli_output("getltestatus");
    EXPECT_EQ(status, "{\n\t\"netstat\": 4\n}\n");
    EXPECT_TRUE(shows_attached(kept(status, "netstat", false).c_str()));

    EXPECT_EQ(test::queried(get_product_model, 32), "RQ5518L-M2");
    EXPECT_EQ(test::queried(get_serial_number, 256), "QW0042");
    EXPECT_TRUE(is_lte_connected());
    EXPECT_EQ(get_dl_frequency(), 36250);
    EXPECT_EQ(get_bandwidth(), 20);
    EXPECT_EQ(get_band(), 48);
}

TEST_F(ModemForms, RealValuedMembersReadAsTheirWholePart) {
    test::set_lab_modem(R"({"dlfreq": 3625000.0, "bandwidth": 20.0, "band": 48,
                           "rsrq": -10.5, "sinr": 18.5})");
    std::string info = cli_output("getlteinfo");
    ASSERT_NE(info.find("\t\"bandwidth\": 20.000000,\n"), std::string::npos) << info;
    ASSERT_NE(info.find("\t\"sinr\": 18.500000\n}\n"), std::string::npos) << info;
    EXPECT_EQ(number_of(kept(info, "dlfreq", false)), 3625000);
    EXPECT_EQ(get_dl_frequency(), 36250);
    EXPECT_EQ(get_bandwidth(), 20);
    EXPECT_EQ(get_band(), 48);
}

TEST_F(ModemForms, ProductModelAsTheOnlyMember) {
    test::set_lab_modem(R"({"productmodule": "RQ5518L-M2"})");
    EXPECT_EQ(cli_output("getproductinfo"), "{\n\t\"productmodule\": \"RQ5518L-M2\"\n}\n");
    char model[32] = {};
    get_product_model(model, sizeof model - 1);
    EXPECT_STREQ(model, "RQ5518L-M2");
    char serial[32] = "kept";
    get_serial_number(serial, sizeof serial - 1);
    EXPECT_STREQ(serial, "kept");
}

// Every form in which the modem manager gives no value: the queries' failure
// values, the caller's buffers untouched, the usual one-line messages.
void expect_no_values() {
    EXPECT_EQ(test::queried(get_product_model, 32, "kept"), "kept");
    EXPECT_EQ(test::queried(get_serial_number, 32, "kept"), "kept");
    EXPECT_FALSE(is_lte_connected());
    EXPECT_EQ(get_dl_frequency(), 0);
    EXPECT_EQ(get_bandwidth(), -1);
    EXPECT_EQ(get_band(), -1);
    std::string log = test::read_file("/root/sas/sas.log");
    EXPECT_NE(log.find("]get frequency error:\n"), std::string::npos) << log;
    EXPECT_NE(log.find("]get band error:\n"), std::string::npos) << log;
}

const char* const kAllMethods = R"(["getproductinfo", "getltestatus", "getlteinfo"])";
const std::string kValues = R"("productmodule": "RQ5518L-M2", "SN": "QW1", "netstat": 4,
                               "dlfreq": 3625000, "bandwidth": 20, "band": 48)";

struct Form {
    const char* name;
    std::string state;
    const char* stdout_text;  // of getlteinfo
    const char* stderr_text;
};

// Test names and failure messages show the form's name, not its bytes.
void PrintTo(const Form& form, std::ostream* out) { *out << form.name; }

class NoValueForms : public ModemForms, public ::testing::WithParamInterface<Form> {};

TEST_P(NoValueForms, GiveTheFailureValues) {
    test::set_lab_modem(GetParam().state);
    EXPECT_EQ(cli_output("getlteinfo"), GetParam().stdout_text);
    std::string both = test::shell("ubus call ubus_lte getlteinfo 2>&1 >/dev/null");
    EXPECT_EQ(both, GetParam().stderr_text);
    expect_no_values();
}

INSTANTIATE_TEST_SUITE_P(
    Forms, NoValueForms,
    ::testing::Values(
        Form{"EmptyReply", "{}", "{\n\t\n}\n", ""},
        Form{"NoReplyData", R"({"nodata": true, )" + kValues + "}", "", ""},
        Form{"FailingMethod", R"({"fail": true, )" + kValues + "}", "",
             "Command failed: ubus call ubus_lte getlteinfo (Unknown error)\n"},
        Form{"FailingMethodNoResponse", R"({"fail": true, "fail_status": 5, )" + kValues + "}",
             "", "Command failed: ubus call ubus_lte getlteinfo (No response)\n"},
        Form{"FailingMethodPre2022", R"({"fail": true, "cli": "pre2022", )" + kValues + "}", "",
             "Command failed: Unknown error\n"},
        Form{"MethodMissing", R"({"missing": )" + std::string(kAllMethods) + ", " + kValues + "}",
             "", "Command failed: ubus call ubus_lte getlteinfo (Method not found)\n"},
        Form{"MethodMissingPre2022",
             R"({"cli": "pre2022", "missing": )" + std::string(kAllMethods) + ", " + kValues + "}",
             "", "Command failed: Method not found\n"},
        Form{"ObjectNotRegistered", R"({"registered": false, )" + kValues + "}", "",
             "Command failed: Not found\n"},
        Form{"NoUbusd", R"({"ubusd": false, )" + kValues + "}", "",
             "Failed to connect to ubus\n"}),
    [](const ::testing::TestParamInfo<Form>& info) { return std::string(info.param.name); });

// The CLI gives up on a modem manager that never answers after its time-out
// (30 s by default; a router that calls it with `-t 1` here, so that the
// test waits one second per query instead of the daemon's own time limit).
TEST_F(ModemForms, TimedOutCallGivesTheFailureValues) {
    test::set_lab_modem(R"({"hang": true, )" + kValues + "}");
    mkdir("/tmp/cli-t1", 0755);
    test::write_file("/tmp/cli-t1/ubus", std::string("#!/bin/sh\nexec ") + CBSD_SOURCE_DIR +
                                             "/tests/lab/bin/ubus -t 1 \"$@\"\n");
    chmod("/tmp/cli-t1/ubus", 0755);
    std::string saved = std::getenv("PATH");
    setenv("PATH", ("/tmp/cli-t1:" + saved).c_str(), 1);
    EXPECT_EQ(test::shell("ubus call ubus_lte getlteinfo 2>&1; echo status $?"),
              "Command failed: ubus call ubus_lte getlteinfo (Request timed out)\nstatus 249\n");
    auto started = std::chrono::steady_clock::now();
    char model[32] = "kept";
    get_product_model(model, sizeof model - 1);
    EXPECT_EQ(get_band(), -1);
    auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started);
    setenv("PATH", saved.c_str(), 1);
    EXPECT_STREQ(model, "kept");
    EXPECT_GE(seconds.count(), 2.0);
    EXPECT_LT(seconds.count(), 5.0);
}

}  // namespace
}  // namespace cbsd::modem
