// A peer that resets the connection while the daemon writes must not end the
// daemon: SIGPIPE is ignored, the write fails with EPIPE instead.
#include "daemon/signals.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <thread>
#include <csignal>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace cbsd::daemon {
namespace {

// Writes to a loopback TCP connection whose peer has reset it, in a child
// process; the child's wait status.
int write_after_peer_reset(bool install_handlers) {
    pid_t child = fork();
    if (child == 0) {
        if (install_handlers)
            install_signal_handlers();
        else
            signal(SIGPIPE, SIG_DFL);
        int listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            listen(listener, 1) != 0 ||
            getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
            _exit(10);
        int client = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) _exit(11);
        int peer = accept(listener, nullptr, nullptr);
        linger reset{1, 0};  // close with RST
        setsockopt(peer, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        close(peer);
        usleep(50 * 1000);
        char block[4096] = {};
        for (int i = 0; i < 100; ++i) {
            // The first write after the reset may report it; the next one
            // meets the broken pipe.
            if (write(client, block, sizeof block) < 0 && errno != ECONNRESET)
                _exit(errno == EPIPE ? 0 : 12);
        }
        _exit(13);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

TEST(Signals, AWriteToAResetConnectionFailsInsteadOfEndingTheDaemon) {
    int status = write_after_peer_reset(true);
    ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(Signals, WithoutTheHandlersTheSameWriteKillsTheProcess) {
    // Shows that the test above can fail: the default action ends the process.
    int status = write_after_peer_reset(false);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGPIPE);
}

}  // namespace
}  // namespace cbsd::daemon

namespace cbsd::daemon {
namespace {

// SIGTERM and SIGINT only ask for the stop; the process lives on to do it.
TEST(Signals, TermAndIntRequestTheStopWithoutEndingTheProcess) {
    install_signal_handlers();
    EXPECT_FALSE(stop_requested());
    ASSERT_EQ(raise(SIGTERM), 0);
    EXPECT_TRUE(stop_requested());
    ASSERT_EQ(raise(SIGINT), 0);
    EXPECT_TRUE(stop_requested());
}

// The stop deadline's thread sleeps until the signal instead of looking at
// the flag many times a second.
TEST(Signals, AWaitForTheStopLastsItsTimeoutAndEndsAtTheSignal) {
    install_signal_handlers();
    auto begin = std::chrono::steady_clock::now();
    wait_for_stop_request(300);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(290));
    EXPECT_FALSE(stop_requested());

    std::thread raiser([] {
        usleep(200 * 1000);
        kill(getpid(), SIGTERM);
    });
    begin = std::chrono::steady_clock::now();
    wait_for_stop_request(20000);
    auto waited = std::chrono::steady_clock::now() - begin;
    raiser.join();
    EXPECT_TRUE(stop_requested());
    EXPECT_LT(waited, std::chrono::seconds(5));
    // Once asked, the stop is seen at once by every later wait.
    begin = std::chrono::steady_clock::now();
    wait_for_stop_request(20000);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}

}  // namespace
}  // namespace cbsd::daemon
