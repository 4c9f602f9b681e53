// Concurrent writers and killed writers on one UCI file.
#include "config/uci_store.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace cbsd::config {
namespace {

const char* const kSas = "/etc/config/sas";
constexpr int kRounds = 2000;

// Sets its own option to 0, 1, 2, ... and reads it back after every set.
// Returns how many read-backs did not show the value just written: an update
// lost to another writer shows up here or in the final value.
int write_own_option(const char* option) {
    int mismatches = 0;
    for (int i = 0; i < kRounds; ++i) {
        std::string value = std::to_string(i);
        config_set(kSas, "config", option, value.c_str());
        char back[32] = {};
        if (config_get(kSas, "config", option, back, sizeof back) != 1 || value != back) ++mismatches;
    }
    return mismatches;
}

pid_t start_writer_process(const char* option) {
    pid_t pid = fork();
    if (pid == 0) _exit(write_own_option(option) == 0 ? 0 : 1);
    return pid;
}

bool process_succeeded(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string get(const char* option) {
    char value[64] = {};
    config_get(kSas, "config", option, value, sizeof value);
    return value;
}

TEST(UciConcurrencyTest, TwoThreadsAndTwoProcessesLoseNoUpdate) {
    ASSERT_TRUE(test::write_file(kSas, "config sas 'config'\n\toption enableMode '1'\n"));
    pid_t first = start_writer_process("processOne");
    pid_t second = start_writer_process("processTwo");
    ASSERT_GT(first, 0);
    ASSERT_GT(second, 0);

    std::atomic<bool> writing{true};
    std::atomic<int> unreadable{0};
    std::thread reader([&] {
        while (writing) {
            char value[8] = {};
            if (config_get(kSas, "config", "enableMode", value, sizeof value) != 1 ||
                std::string(value) != "1")
                ++unreadable;
        }
    });
    int thread_one = -1, thread_two = -1;
    std::thread one([&] { thread_one = write_own_option("threadOne"); });
    std::thread two([&] { thread_two = write_own_option("threadTwo"); });
    one.join();
    two.join();
    EXPECT_TRUE(process_succeeded(first));
    EXPECT_TRUE(process_succeeded(second));
    writing = false;
    reader.join();

    EXPECT_EQ(thread_one, 0);
    EXPECT_EQ(thread_two, 0);
    EXPECT_EQ(unreadable, 0);
    const std::string last = std::to_string(kRounds - 1);
    EXPECT_EQ(get("threadOne"), last);
    EXPECT_EQ(get("threadTwo"), last);
    EXPECT_EQ(get("processOne"), last);
    EXPECT_EQ(get("processTwo"), last);
    EXPECT_EQ(get("enableMode"), "1");
}

// Each state the writer produces has a counter and a large value made of the
// counter's last digit, so a torn or mixed file is recognisable.
std::string filler_for(int counter) {
    return std::string(16 * 1024, static_cast<char>('0' + counter % 10));
}

[[noreturn]] void write_forever() {
    for (int counter = 1;; ++counter) {
        std::string filler = filler_for(counter);
        config_set(kSas, "config", "filler", filler.c_str());
        config_set(kSas, "config", "counter", std::to_string(counter).c_str());
    }
}

TEST(UciConcurrencyTest, KilledWriterLeavesACompleteFile) {
    ASSERT_TRUE(test::write_file(kSas, "config sas 'config'\n\toption counter '0'\n\toption filler '" +
                                           filler_for(0) + "'\n"));
    unsigned seed = 12345;
    int rounds_with_progress = 0;
    for (int round = 0; round < 150; ++round) {
        pid_t writer = fork();
        ASSERT_GE(writer, 0);
        if (writer == 0) write_forever();
        // Long enough for commits to land even on a slow or sanitised build,
        // random enough to hit every phase of a commit.
        usleep(1000 + rand_r(&seed) % 25000);
        kill(writer, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(writer, &status, 0), writer);

        static char filler[32 * 1024];
        char counter[32] = {};
        ASSERT_EQ(config_get(kSas, "config", "counter", counter, sizeof counter), 1u) << "round " << round;
        ASSERT_EQ(config_get(kSas, "config", "filler", filler, sizeof filler), 1u);
        // Between the two sets of one step the filler may be one step ahead.
        int value = std::atoi(counter);
        std::string text = filler;
        ASSERT_TRUE(text == filler_for(value) || text == filler_for(value + 1))
            << "round " << round << " counter " << value << " filler length " << text.size();
        if (value > 0) ++rounds_with_progress;
        // Every killed writer restarts from 1; start each round from that state.
        ASSERT_EQ(config_set(kSas, "config", "counter", "0"), 1u);
        ASSERT_EQ(config_set(kSas, "config", "filler", filler_for(0).c_str()), 1u);
        test::shell("rm -f /etc/config/.sas.uci-*");
    }
    // Kills must land after real commits too, or the test showed nothing.
    EXPECT_GT(rounds_with_progress, 30);
}

}  // namespace
}  // namespace cbsd::config
