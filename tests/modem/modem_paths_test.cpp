// The modem queries over libubus give what the `ubus` CLI gives, for every
// reply the modem manager can send: each case runs once through the real
// CLI (no bus thread) and once over the bus thread's libubus connection,
// against the same real ubusd and the same modem manager, and the two must
// agree on every outcome: how each call ended, the reply text the filters
// read, the values the queries return and the log lines.
#include "base/failure_streaks.h"
#include "base/system.h"
#include "bus/bus.h"
#include "modem/modem.h"
#include "modem/modem_manager.h"
#include "support/real_ubus.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <sys/stat.h>

namespace cbsd::modem {
namespace {

constexpr const char* kMethods[] = {"getproductinfo", "getltestatus", "getlteinfo"};
constexpr const char* kLog = "/root/sas/sas.log";

class ReplyText : public base::OutputSink {
public:
    bool feed(const char* data, size_t size) override {
        text.append(data, size);
        return true;
    }
    void finish() override { finished = true; }
    std::string text;
    bool finished = false;
};

// Everything a caller of the modem queries can see of one modem state.
struct Observed {
    ModemCall calls[3]{};
    std::string replies[3];
    std::string model, serial;
    bool product_answered = false;
    bool connected = false;
    int frequency = 0, bandwidth = 0, band = 0;
    std::string log;  // the log's lines without their time stamps

    bool operator==(const Observed&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Observed& seen) {
    for (int i = 0; i < 3; ++i)
        out << kMethods[i] << ": call " << static_cast<int>(seen.calls[i]) << " reply [" << seen.replies[i]
            << "]\n";
    return out << "model [" << seen.model << "] serial [" << seen.serial << "] answered "
               << seen.product_answered << " connected " << seen.connected << " frequency "
               << seen.frequency << " bandwidth " << seen.bandwidth << " band " << seen.band
               << "\nlog:\n" << seen.log;
}

std::string log_without_stamps() {
    std::istringstream lines(test::read_file(kLog));
    std::string line, kept;
    while (std::getline(lines, line)) {
        size_t stamp_end = line.find(']');
        kept += (stamp_end == std::string::npos ? line : line.substr(stamp_end + 1)) + "\n";
    }
    return kept;
}

Observed observe() {
    base::reset_command_streaks();
    test::write_file(kLog, "");
    Observed seen;
    for (int i = 0; i < 3; ++i) {
        ReplyText reply;
        seen.calls[i] = call_modem_manager(kMethods[i], reply, kMethods[i]);
        seen.replies[i] = reply.text;
    }
    ProductInfo info{};
    seen.product_answered = read_product_info(info);
    seen.model = info.model;
    seen.serial = info.serial;
    seen.connected = is_lte_connected();
    seen.frequency = get_dl_frequency();
    seen.bandwidth = get_bandwidth();
    seen.band = get_band();
    seen.log = log_without_stamps();
    return seen;
}

class ModemPaths : public ::testing::Test {
protected:
    void SetUp() override {
        CBSD_SKIP_WITHOUT_REAL_UBUS();
        mkdir("/root/sas", 0755);
        ubus_ = std::make_unique<test::RealUbus>();
        ASSERT_TRUE(ubus_->start_ubusd());
    }
    void TearDown() override {
        bus::stop();
        ubus_.reset();
    }

    // Writes the modem state and waits until the modem manager shows it.
    void set_modem(const std::string& state, bool registered = true) {
        test::RealUbus::set_modem_state(state);
        ASSERT_TRUE(ubus_->start_modem_manager(registered));
        ASSERT_TRUE(test::RealUbus::wait_until(
            [&] { return test::RealUbus::object_listed() == registered; }, 5000));
    }

    Observed through_cli() {
        bus::stop();
        return observe();
    }
    Observed through_bus() {
        EXPECT_TRUE(bus::start());
        EXPECT_TRUE(test::RealUbus::wait_until([] { return bus::connected(); }, 5000));
        return observe();
    }

    Observed through_bus_without_waiting() {
        EXPECT_TRUE(bus::start());
        return observe();
    }

    // Both paths, compared.
    Observed same_on_both(const std::string& state, bool registered = true) {
        set_modem(state, registered);
        Observed cli = through_cli();
        Observed over_bus = through_bus();
        EXPECT_EQ(cli, over_bus);
        return over_bus;
    }

    std::unique_ptr<test::RealUbus> ubus_;
};

TEST_F(ModemPaths, ValuesAsNumbers) {
    Observed seen = same_on_both(
        R"({"productmodule": "QX-100", "SN": "AB12", "netstat": 4, "dlfreq": 36500,
            "bandwidth": 20, "band": 48, "sinr": 18.5})");
    EXPECT_EQ(seen.model, "QX-100");
    EXPECT_EQ(seen.serial, "AB12");
    EXPECT_TRUE(seen.connected);
    EXPECT_EQ(seen.frequency, 365);
    EXPECT_EQ(seen.bandwidth, 20);
    EXPECT_EQ(seen.band, 48);
    EXPECT_NE(seen.replies[2].find("\t\"sinr\": 18.500000\n}"), std::string::npos) << seen.replies[2];
}

// Numbers sent as strings: the attachment test finds its "4", but a quoted
// number reads as 0 (the text after the colon starts with a quote).
TEST_F(ModemPaths, ValuesAsStrings) {
    Observed seen = same_on_both(
        R"({"productmodule": "QX-100", "SN": "AB12", "netstat": "4", "dlfreq": "36500",
            "bandwidth": "20", "band": "48"})");
    EXPECT_TRUE(seen.connected);
    EXPECT_EQ(seen.frequency, 0);
    EXPECT_EQ(seen.bandwidth, 0);
    EXPECT_EQ(seen.band, 0);
}

TEST_F(ModemPaths, MembersMissing) {
    Observed seen = same_on_both(R"({"productmodule": "QX-100"})");
    EXPECT_EQ(seen.serial, "");
    EXPECT_FALSE(seen.connected);
    EXPECT_EQ(seen.frequency, 0);
    EXPECT_EQ(seen.bandwidth, -1);
    EXPECT_EQ(seen.band, -1);
}

TEST_F(ModemPaths, EmptyReply) {
    Observed seen = same_on_both("{}");
    EXPECT_EQ(seen.replies[1], "{\n\t\n}\n");
    EXPECT_EQ(seen.calls[1], ModemCall::kAnswered);
}

TEST_F(ModemPaths, NoReplyData) {
    Observed seen = same_on_both(R"({"nodata": true, "netstat": 4})");
    EXPECT_EQ(seen.replies[1], "");
    EXPECT_EQ(seen.calls[1], ModemCall::kAnswered);
    EXPECT_FALSE(seen.connected);
}

TEST_F(ModemPaths, MethodFailsWithUnknownError) {
    Observed seen = same_on_both(R"({"fail": ["getlteinfo"], "fail_status": 9, "netstat": 4})");
    EXPECT_EQ(seen.calls[2], ModemCall::kRefused);
    EXPECT_NE(seen.log.find("Command failed: ubus call ubus_lte getlteinfo (Unknown error)"),
              std::string::npos) << seen.log;
}

TEST_F(ModemPaths, MethodFailsWithNoResponse) {
    Observed seen = same_on_both(R"({"fail": true, "fail_status": 5})");
    EXPECT_EQ(seen.calls[0], ModemCall::kRefused);
    EXPECT_EQ(seen.frequency, 0);
}

TEST_F(ModemPaths, MethodMissing) {
    Observed seen = same_on_both(R"({"missing": ["getlteinfo"], "netstat": 4, "dlfreq": 36500})");
    EXPECT_EQ(seen.calls[2], ModemCall::kRefused);
    EXPECT_TRUE(seen.connected);
    EXPECT_NE(seen.log.find("(Method not found)"), std::string::npos) << seen.log;
}

TEST_F(ModemPaths, ObjectNotRegistered) {
    Observed seen = same_on_both(R"({"registered": false, "netstat": 4})", false);
    EXPECT_EQ(seen.calls[0], ModemCall::kRefused);
    EXPECT_NE(seen.log.find("Command failed: Not found"), std::string::npos) << seen.log;
}

TEST_F(ModemPaths, NoUbusd) {
    set_modem(R"({"netstat": 4})");
    ubus_->stop_modem_manager();
    ubus_->stop_ubusd();
    Observed cli = through_cli();
    Observed over_bus = through_bus_without_waiting();
    EXPECT_EQ(cli, over_bus);
    EXPECT_EQ(over_bus.calls[1], ModemCall::kRefused);
    EXPECT_NE(over_bus.log.find("Failed to connect to ubus"), std::string::npos) << over_bus.log;
}

// A modem manager that never answers: both paths end the query at the time
// limit and read it as cut short; only the log line differs, since no process
// was killed on the bus path.
TEST_F(ModemPaths, NoAnswerWithinTheTimeLimit) {
    set_modem(R"({"hang": ["getlteinfo"], "netstat": 4, "dlfreq": 36500})");
    base::TimeLimitCap one_second(1);
    Observed cli = through_cli();
    Observed over_bus = through_bus();
    EXPECT_EQ(cli.calls[2], ModemCall::kCutShort);
    EXPECT_EQ(over_bus.calls[2], ModemCall::kCutShort);
    EXPECT_EQ(over_bus.frequency, cli.frequency);
    EXPECT_EQ(over_bus.frequency, 0);
    EXPECT_EQ(over_bus.connected, cli.connected);
    EXPECT_NE(cli.log.find("[SAS] command still running after 1 s, killed: getlteinfo"),
              std::string::npos) << cli.log;
    EXPECT_NE(over_bus.log.find("[SAS] no answer from the modem manager within 1 s: getlteinfo"),
              std::string::npos) << over_bus.log;
}

// ubusd restarts: the bus thread connects again by itself, and the link
// last seen stands for the modem while it cannot be asked.
TEST_F(ModemPaths, ReconnectsAfterUbusdRestarts) {
    set_modem(R"({"netstat": 4, "band": 48})");
    through_bus();
    ASSERT_TRUE(is_lte_connected());
    ubus_->stop_modem_manager();
    ubus_->stop_ubusd();
    ASSERT_TRUE(test::RealUbus::wait_until([] { return !bus::connected(); }, 2000));
    EXPECT_TRUE(is_lte_connected());
    EXPECT_EQ(get_band(), -1);
    ASSERT_TRUE(ubus_->start_ubusd());
    ASSERT_TRUE(ubus_->start_modem_manager());
    EXPECT_TRUE(test::RealUbus::wait_until([] { return get_band() == 48; }, 3000));
    EXPECT_TRUE(bus::connected());
}

// Over the bus no process is started: with nothing on PATH the queries
// still answer.
TEST_F(ModemPaths, AQueryOverTheBusStartsNoProcess) {
    set_modem(R"({"netstat": 4, "band": 48})");
    through_bus();
    std::string saved_path = std::getenv("PATH");
    setenv("PATH", "/nonexistent", 1);
    EXPECT_TRUE(is_lte_connected());
    EXPECT_EQ(get_band(), 48);
    setenv("PATH", saved_path.c_str(), 1);
}

}  // namespace
}  // namespace cbsd::modem
