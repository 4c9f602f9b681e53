// A store that cannot be written while the worker runs: what it decided is
// held in memory, so it neither acts on the same expiry again and again nor
// asks the SAS in a tight loop.  /etc/config is a tmpfs of its own here (in
// the test's private mount namespace), remounted read-only while it fails.
#include "standalone_fixture.h"

#include "base/clock.h"
#include "standalone/transmit_deadline.h"

#include <cerrno>
#include <cstring>
#include <sys/mount.h>

namespace cbsd::standalone {
namespace {

class StoreFault : public StandaloneThread {
protected:
    void SetUp() override {
        ASSERT_EQ(mount("tmpfs", "/etc/config", "tmpfs", 0, "size=64k"), 0) << std::strerror(errno);
        StandaloneThread::SetUp();
    }
    void TearDown() override {
        StandaloneThread::TearDown();
        umount2("/etc/config", MNT_DETACH);
    }
    static void set_read_only(bool read_only) {
        unsigned long flags = MS_REMOUNT | (read_only ? MS_RDONLY : 0);
        ASSERT_EQ(mount(nullptr, "/etc/config", nullptr, flags, "size=64k"), 0) << std::strerror(errno);
    }
};

TEST_F(StoreFault, AnExpiryTheStoreCannotClearIsActedOnOnceAndRequestsStayPaced) {
    authorize();
    // A time past its grace in the file, which then cannot be written.
    store("sasConfig", "transmitExpireTime", "2020-01-01T00:00:00Z");
    set_read_only(true);
    size_t before = sas_endpoints().size();
    ASSERT_TRUE(PassGate::instance().steps(120));
    std::string log = log_text();
    EXPECT_EQ(test::occurrences(log, "] is expired.\n"), 1u) << log;
    EXPECT_EQ(test::occurrences(log, "cannot be written"), 1u) << log;
    // The GRANTED heartbeat after the expiry, then one per heartbeat period:
    // the stale time in the file is not taken for a new expiry every pass.
    size_t sent = sas_endpoints().size() - before;
    EXPECT_GE(sent, 2u) << log;
    EXPECT_LE(sent, 4u) << log;
    EXPECT_TRUE(transmit_deadline_held(base::monotonic_ms64()));

    set_read_only(false);
    ASSERT_TRUE(PassGate::instance().step());
    EXPECT_EQ(test::occurrences(log_text(), "[SAS] /etc/config/sas can be written again.\n"), 1u) << log_text();
    EXPECT_EQ(test::occurrences(log_text(), "] is expired.\n"), 1u);
    EXPECT_EQ(stored("operation", "status"), "Authorized");
}

TEST_F(StoreFault, AStatusTheStoreCannotTakeIsNotSentAgain) {
    authorize();
    set_read_only(true);
    sas_push("heartbeat", R"({"responseCode":501})");
    ASSERT_TRUE(PassGate::instance().steps(60));
    // Suspended: Granted is held in memory and the thread waits its minute,
    // although the file still says Authorized.
    EXPECT_EQ(count_of(sas_endpoints(), "heartbeat"), 2u);
    ASSERT_TRUE(PassGate::instance().steps(30));
    EXPECT_EQ(count_of(sas_endpoints(), "heartbeat"), 2u);
    ASSERT_TRUE(PassGate::instance().steps(31));
    EXPECT_EQ(count_of(sas_endpoints(), "heartbeat"), 3u);
    EXPECT_TRUE(has(sas_request_element("heartbeat", 2), R"("operationState":"GRANTED")"));
}

}  // namespace
}  // namespace cbsd::standalone
