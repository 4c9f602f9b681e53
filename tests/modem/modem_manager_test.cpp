// Each query against the shell pipeline it replaced, run through the daemon's
// command runner with the same buffer: a `ubus` stand-in that prints a file
// and exits with a chosen status, a missing `ubus`, and the getlteinfo reply
// that a supervision pass shares between its readers.
#include "base/system.h"
#include "modem/lte_info.h"
#include "modem/modem.h"
#include "modem/product_query.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <sys/stat.h>

namespace cbsd::modem {
namespace {

// Prints /tmp/ubus-reply/<method> (if any), then exits with the status in
// /tmp/ubus-reply/status.
const char* const kUbusScript =
    "#!/bin/sh\n"
    "cat \"/tmp/ubus-reply/$3\" 2>/dev/null\n"
    "exit $(cat /tmp/ubus-reply/status 2>/dev/null || echo 0)\n";

class ModemManager : public ::testing::Test {
protected:
    void SetUp() override {
        mkdir("/root/sas", 0755);
        mkdir("/tmp/ubus-bin", 0755);
        mkdir("/tmp/ubus-reply", 0755);
        test::write_file("/tmp/ubus-bin/ubus", kUbusScript);
        chmod("/tmp/ubus-bin/ubus", 0755);
        saved_path_ = std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin";
        setenv("PATH", ("/tmp/ubus-bin:" + saved_path_).c_str(), 1);
    }
    void TearDown() override { setenv("PATH", saved_path_.c_str(), 1); }

    static void serve(const std::string& method, const std::string& reply, int status = 0) {
        test::write_file("/tmp/ubus-reply/" + method, reply);
        test::write_file("/tmp/ubus-reply/status", std::to_string(status) + "\n");
    }

    std::string saved_path_;
};

// What the pipeline printed into a buffer of that size, in the C locale.
template <size_t Size>
std::string pipeline(const char* method, const char* grep) {
    std::string command = std::string("ubus call ubus_lte ") + method + " | LC_ALL=C grep " + grep;
    char buffer[Size] = {};
    base::run_command(command.c_str(), buffer, Size);
    buffer[Size - 1] = '\0';
    return std::string(buffer, Size);
}

template <size_t Size>
std::string whole(const char (&text)[Size]) {
    return std::string(text, Size);
}

void expect_lte_info_as_pipelines() {
    const LteInfo& info = lte_info("test");
    EXPECT_EQ(whole(info.frequency), pipeline<64>("getlteinfo", "dlfreq"));
    EXPECT_EQ(whole(info.bandwidth), pipeline<63>("getlteinfo", "bandwidth"));
    EXPECT_EQ(whole(info.band), pipeline<63>("getlteinfo", "-w band"));
}

const char* const kInfo = "{\n\t\"dlfreq\": 3625000,\n\t\"bandwidth\": 20,\n\t\"band\": 48,\n}\n";

TEST_F(ModemManager, ReplyOfASucceedingModemManager) {
    serve("getlteinfo", kInfo);
    expect_lte_info_as_pipelines();
    EXPECT_EQ(get_dl_frequency(), 36250);
    EXPECT_EQ(get_bandwidth(), 20);
    EXPECT_EQ(get_band(), 48);
}

TEST_F(ModemManager, FailingModemManagerWithAndWithoutOutput) {
    serve("getlteinfo", kInfo, 4);
    expect_lte_info_as_pipelines();
    EXPECT_EQ(get_band(), 48);  // the exit status was never looked at
    serve("getlteinfo", "", 4);
    expect_lte_info_as_pipelines();
    EXPECT_EQ(get_band(), -1);
}

TEST_F(ModemManager, EmptyAndBinaryReplies) {
    serve("getlteinfo", "");
    expect_lte_info_as_pipelines();
    serve("getlteinfo", std::string(kInfo) + std::string(1, '\0') + "\n");
    expect_lte_info_as_pipelines();
    EXPECT_EQ(get_dl_frequency(), 0);
}

TEST_F(ModemManager, MissingModemManager) {
    setenv("PATH", "/nonexistent", 1);
    // /bin/sh is found by its path; ubus and grep are not.
    std::string old_frequency = pipeline<64>("getlteinfo", "dlfreq");
    const LteInfo& info = lte_info("test");
    EXPECT_EQ(whole(info.frequency), old_frequency);
    EXPECT_EQ(whole(info.band), std::string(63, '\0'));
    EXPECT_FALSE(is_lte_connected());
    char model[32] = "kept";
    get_product_model(model, sizeof model - 1);
    EXPECT_STREQ(model, "kept");
}

TEST_F(ModemManager, StatusAndProductQueriesMatchTheirPipelines) {
    serve("getltestatus", "{\n\t\"netstat\": 4,\n}\n");
    EXPECT_TRUE(is_lte_connected());
    serve("getltestatus", "{\n\t\"netstat\": 1,\n\t\"simstatus\": 4,\n}\n");
    EXPECT_FALSE(is_lte_connected());  // only the netstat line counts
    serve("getproductinfo", "{\n\t\"productmodule\": \"QX-7\",\n\t\"SN\": \"SN9\",\n}\n");
    EXPECT_EQ(test::queried(get_product_model, 32), "QX-7");
    EXPECT_EQ(test::queried(get_serial_number, 32), "SN9");
}

int lteinfo_calls() {
    return std::atoi(test::read_file("/tmp/ubus-reply/calls").c_str());
}

// Counts the getlteinfo calls in /tmp/ubus-reply/calls.
void count_calls() {
    test::write_file("/tmp/ubus-bin/ubus",
                     "#!/bin/sh\n"
                     "[ \"$3\" = getlteinfo ] && echo $(( $(cat /tmp/ubus-reply/calls) + 1 )) "
                     "> /tmp/ubus-reply/calls\n"
                     "cat \"/tmp/ubus-reply/$3\" 2>/dev/null\n");
    test::write_file("/tmp/ubus-reply/calls", "0\n");
}

TEST_F(ModemManager, OneReplyServesEveryReaderWithinAScope) {
    count_calls();
    serve("getlteinfo", kInfo);
    {
        LteInfoScope pass;
        EXPECT_EQ(get_band(), 48);
        serve("getlteinfo", "{\n\t\"dlfreq\": 3600000,\n\t\"bandwidth\": 10,\n\t\"band\": 43,\n}\n");
        EXPECT_EQ(get_dl_frequency(), 36250);
        EXPECT_EQ(get_bandwidth(), 20);
        EXPECT_EQ(lteinfo_calls(), 1);
        renew_lte_info();  // a poll asks again
        EXPECT_EQ(get_bandwidth(), 10);
        EXPECT_EQ(get_dl_frequency(), 36000);
        EXPECT_EQ(lteinfo_calls(), 2);
    }
    // Outside a scope every reader asks.
    EXPECT_EQ(get_band(), 43);
    EXPECT_EQ(get_band(), 43);
    EXPECT_EQ(lteinfo_calls(), 4);
    LteInfoScope next_pass;
    EXPECT_EQ(get_band(), 43);
    EXPECT_EQ(lteinfo_calls(), 5);
}

}  // namespace
}  // namespace cbsd::modem
