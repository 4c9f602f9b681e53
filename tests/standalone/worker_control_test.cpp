#include "core/worker_control.h"

#include "config/uci_store.h"
#include "standalone/standalone_thread.h"
#include "thread_harness.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace cbsd::core {
namespace {

std::string log_text() { return test::read_file("/root/sas/sas.log"); }

size_t occurrences(const std::string& text, const std::string& piece) {
    size_t n = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) ++n;
    return n;
}

// The id printed in the first "create standalone thread[ID] success." line.
std::string created_thread_id(const std::string& log) {
    const std::string prefix = "[SAS] create standalone thread[";
    size_t start = log.find(prefix);
    if (start == std::string::npos) return "";
    start += prefix.size();
    size_t end = log.find("] success.\n", start);
    if (end == std::string::npos) return "";
    std::string id = log.substr(start, end - start);
    if (id.find_first_not_of("0123456789") != std::string::npos) return "";
    return id;
}

std::string status() {
    char value[32] = {};
    config::config_get(config::kSasConfigPath, "operation", "status", value, sizeof value);
    return value;
}

class WorkerControl : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(test::SimulatorProcess::start(url_));
        std::string path = test::kSourceDir + "/tests/lab/bin:" + getenv("PATH");
        setenv("PATH", path.c_str(), 1);
        test::write_file("/etc/lab/modem.json", R"({"netstat": 4})");
        test::write_file("/etc/TZ", "UTC0\n");
        setenv("TZ", "UTC0", 1);
        tzset();
    }
    static void TearDownTestSuite() { test::SimulatorProcess::stop(); }

    void SetUp() override {
        test::sim_clear();
        unlink("/root/sas/sas.log");
        ASSERT_TRUE(test::write_file(config::kSasConfigPath,
                                     test::sas_config_text(url_, "Unregistered")));
        // Real one-second sleeps: these tests check the real stop protocol.
        standalone::set_pass_clock({nullptr, nullptr});
    }
    void TearDown() override { stop_standalone_worker(); }

    static std::string url_;
};

std::string WorkerControl::url_;

TEST_F(WorkerControl, StartWhileAWorkerExistsIsIgnoredUntilItIsStopped) {
    config::config_set(config::kSasConfigPath, "config", "address", "");
    start_standalone_worker();
    ASSERT_TRUE(test::wait_until(
        [] { return log_text().find("[SAS] standalone_thread exit.\n") != std::string::npos; }));
    // The worker ended on its own and left the flag set: a start is refused.
    EXPECT_EQ(worker_running.load(), 1);
    start_standalone_worker();
    std::string log = log_text();
    EXPECT_EQ(occurrences(log, "[SAS] create standalone thread["), 1u);
    EXPECT_EQ(occurrences(log, "[SAS] standalone_thread is running.\n"), 1u);

    std::string id = created_thread_id(log);
    ASSERT_FALSE(id.empty());
    stop_standalone_worker();
    log = log_text();
    EXPECT_NE(log.find("[SAS] waiting StandAlone thread[" + id + "] stop...\n"), std::string::npos);
    EXPECT_NE(log.find("[SAS] StandAlone thread[" + id + "] is stopped\n"), std::string::npos);
    EXPECT_EQ(worker_running.load(), 0);

    // A stop without a worker only clears the flag.
    stop_standalone_worker();
    EXPECT_EQ(occurrences(log_text(), "[SAS] waiting StandAlone thread["), 1u);

    start_standalone_worker();
    EXPECT_EQ(occurrences(log_text(), "[SAS] create standalone thread["), 2u);
}

TEST_F(WorkerControl, StopRightAfterStartIsNotUndoneByTheStartingWorker) {
    config::config_set(config::kSasConfigPath, "config", "address", "");
    for (int i = 0; i < 20; ++i) {
        start_standalone_worker();
        stop_standalone_worker();
        ASSERT_EQ(worker_running.load(), 0) << "round " << i;
    }
}

TEST_F(WorkerControl, StopEndsAWaitingWorkerWithinAboutASecond) {
    test::sim_push("registration", R"({"responseCode":200})");
    start_standalone_worker();
    ASSERT_TRUE(test::wait_until([] { return test::sim_endpoints().size() == 1; })) << log_text();
    auto begin = std::chrono::steady_clock::now();
    stop_standalone_worker();
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_LT(seconds, 2.5);
    EXPECT_EQ(test::sim_endpoints(), (std::vector<std::string>{"registration"}));
    EXPECT_NE(log_text().find("[SAS] standalone_thread exit.\n"), std::string::npos);
}

TEST_F(WorkerControl, StopOfAnAuthorizedWorkerGivesTheGrantBack) {
    start_standalone_worker();
    ASSERT_TRUE(test::wait_until([] { return status() == "Authorized"; }));
    stop_standalone_worker();
    auto seen = test::sim_endpoints();
    ASSERT_GE(seen.size(), 2u);
    EXPECT_EQ(std::vector<std::string>(seen.end() - 2, seen.end()),
              (std::vector<std::string>{"relinquishment", "deregistration"}));
}

TEST_F(WorkerControl, RestartClearsTheStateAndStartsAFreshWorker) {
    start_standalone_worker();
    ASSERT_TRUE(test::wait_until([] { return status() == "Authorized"; }));
    test::sim_push("registration", R"({"responseCode":200})");  // hold the new worker
    auto begin = std::chrono::steady_clock::now();
    restart_standalone_worker();
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_GE(seconds, 1.0);
    EXPECT_EQ(worker_running.load(), 1);
    ASSERT_TRUE(test::wait_until(
        [] { return test::count_of(test::sim_endpoints(), "registration") == 2; }));
    EXPECT_EQ(status(), "Unregistered");
    EXPECT_EQ(occurrences(log_text(), "[SAS] create standalone thread["), 2u);
}

}  // namespace
}  // namespace cbsd::core
