// The certificates left by the router's provisioning, taken at start-up.
#include "daemon/certificate_handover.h"

#include "daemon/profile_fixture.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <sys/stat.h>

namespace cbsd::daemon {
using namespace ::cbsd::test;
namespace {

class CertificateHandover : public ProfileFixture {};

TEST_F(CertificateHandover, ProvisioningCopiesTheCertificatesAndRemovesTheDropOff) {
    ASSERT_EQ(system("mkdir -p /tmp/logger/sas/cert/clientCert /tmp/logger/sas/cert/serverCA"), 0);
    ASSERT_TRUE(test::write_file("/tmp/logger/sas/cert/clientCert/client.pem", "CERT"));
    ASSERT_TRUE(test::write_file("/tmp/logger/sas/cert/serverCA/ca.pem", "CA"));
    provision_certificates();
    EXPECT_EQ(test::read_file("/root/sas/cert/clientCert/client.pem"), "CERT");
    EXPECT_EQ(test::read_file("/root/sas/cert/serverCA/ca.pem"), "CA");
    EXPECT_FALSE(test::file_exists("/tmp/logger/sas"));
}

TEST_F(CertificateHandover, ProvisioningWithNothingToCopyKeepsWhatIsThere) {
    ASSERT_EQ(system("mkdir -p /root/sas/cert/clientKey"), 0);
    ASSERT_TRUE(test::write_file("/root/sas/cert/clientKey/key.pem", "KEY"));
    provision_certificates();
    EXPECT_EQ(test::read_file("/root/sas/cert/clientKey/key.pem"), "KEY");
}

TEST_F(CertificateHandover, ProvisioningWithNothingToCopyPrintsNothingAndMakesTheHome) {
    ASSERT_EQ(system("rm -rf /root/sas && mkdir -p /tmp/logger/sas/other"), 0);
    testing::internal::CaptureStderr();
    provision_certificates();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    struct stat home {};
    EXPECT_EQ(stat("/root/sas", &home), 0);
    EXPECT_TRUE(S_ISDIR(home.st_mode));
    EXPECT_FALSE(test::file_exists("/tmp/logger/sas"));
}

}  // namespace
}  // namespace cbsd::daemon
