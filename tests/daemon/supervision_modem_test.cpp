// A modem manager that restarts while the loop supervises: every query is
// refused as the real `ubus` refuses it (object not registered, no ubusd),
// and no pass may take that for news about the radio.
#include "daemon/supervision_fixture.h"

namespace cbsd::daemon {
namespace supervision_test {
namespace {

// The stand-in `ubus` of a modem manager that is not there.
void refuse_every_query(const char* message, int status) {
    write_file("/tmp/bin/ubus", std::string("#!/bin/sh\necho '") + message + "' >&2\nexit " +
                                    std::to_string(status) + "\n");
}

TEST_F(SupervisionTest, ARefusingModemManagerChangesNoDecision) {
    start_with("1", "1", "0");
    set_option("config", "auto", "1");
    settle();
    set_option("sasConfig", "RadioEnable", "1");
    settle();
    ASSERT_TRUE(all_gates_open()) << describe_gates();
    ASSERT_EQ(get_option("config", "enableMode"), "1");
    const std::string cell = get_option("cellInfo", "lowFrequency") + "/" +
                             get_option("cellInfo", "highFrequency");
    ASSERT_EQ(cell, "3615.0/3635.0");
    clear_log();

    for (auto [message, status] : {std::pair{"Command failed: Not found", 4},
                                   std::pair{"Failed to connect to ubus", 255}}) {
        refuse_every_query(message, status);
        for (int pass = 0; pass < 3; ++pass)
            EXPECT_EQ(run_supervision_pass(state), PassOutcome::kUnchanged) << log();
        EXPECT_TRUE(all_gates_open()) << describe_gates();
    }
    std::string text = log();
    EXPECT_EQ(count(text, " change: "), 0u) << text;
    EXPECT_EQ(count(text, "LTE is not in connection"), 0u) << text;
    EXPECT_EQ(count(text, "sas will run"), 0u) << text;
    EXPECT_EQ(count(text, "Band 48"), 0u) << text;
    EXPECT_EQ(get_option("config", "enableMode"), "1");
    EXPECT_EQ(get_option("cellInfo", "lowFrequency") + "/" + get_option("cellInfo", "highFrequency"),
              cell);
    // The modem manager is back with the same cell: still nothing to act on.
    install_modem_standin();
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kUnchanged) << log();
    EXPECT_TRUE(all_gates_open()) << describe_gates();
}

TEST_F(SupervisionTest, ARefusedQueryLeavesTheSnapshotsCellEmptyForThePassToKeep) {
    start_with("0", "0", "0");
    refuse_every_query("Command failed: Not found", 4);
    SupervisionSnapshot snapshot{};
    load_snapshot(&snapshot);
    EXPECT_STREQ(snapshot.frequency, "");
    EXPECT_STREQ(snapshot.bandwidth, "");
    EXPECT_EQ(snapshot.lteConnected, 0);
}

}  // namespace
}  // namespace supervision_test
}  // namespace cbsd::daemon
