// config_get / config_set on real files (each test process has its own /etc
// and /tmp).
#include "config/uci_store.h"
#include "sas_file_test.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::config {
namespace {

using test::read_file;
using test::write_file;

const char* const kSas = test::kSasFile;
const std::string kTypicalFile = test::typical_sas_file("Registered");

class UciStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        unlink(kSas);
        unlink("/tmp/sas_cache");
    }
    static std::string get(const char* section, const char* option, const char* path = kSas) {
        char buffer[256] = "untouched";
        unsigned result = config_get(path, section, option, buffer, sizeof buffer);
        return std::to_string(result) + ":" + buffer;
    }
    // The 63-character form is read; the 64-character one is neither read nor written.
    static void expect_63_read_and_64_refused(const std::string& path63, const std::string& path64) {
        ASSERT_TRUE(write_file(path63, kTypicalFile));
        ASSERT_TRUE(write_file(path64, kTypicalFile));
        EXPECT_EQ(get("config", "enableMode", path63.c_str()), "1:1");
        EXPECT_EQ(get("config", "enableMode", path64.c_str()), "0:untouched");
        EXPECT_EQ(config_set(path64.c_str(), "config", "enableMode", "0"), 0u);
        EXPECT_EQ(read_file(path64), kTypicalFile);
    }
};

TEST_F(UciStoreTest, ReadsAnOptionOfASectionMatchedByName) {
    ASSERT_TRUE(write_file(kSas, kTypicalFile));
    EXPECT_EQ(get("config", "enableMode"), "1:1");
    EXPECT_EQ(get("config", "address"), "1:https://sas.example.net/v1.2");
    EXPECT_EQ(get("operation", "status"), "1:Registered");
}

TEST_F(UciStoreTest, SectionTypeIsNotASectionName) {
    ASSERT_TRUE(write_file(kSas, kTypicalFile));
    EXPECT_EQ(get("sas", "enableMode"), "1:untouched");
}

TEST_F(UciStoreTest, AbsentOptionLeavesTheBufferAndStillReportsReadable) {
    ASSERT_TRUE(write_file(kSas, kTypicalFile));
    EXPECT_EQ(get("config", "usedp"), "1:untouched");
    EXPECT_EQ(get("cellInfo", "bandwidth"), "1:untouched");
}

TEST_F(UciStoreTest, MissingFileGivesZeroAndLeavesTheBuffer) {
    EXPECT_EQ(get("config", "enableMode"), "0:untouched");
}

TEST_F(UciStoreTest, ListOptionsAreIgnored) {
    ASSERT_TRUE(write_file(kSas, "config sas 'config'\n\tlist address 'a'\n\tlist address 'b'\n"));
    EXPECT_EQ(get("config", "address"), "1:untouched");
}

TEST_F(UciStoreTest, EmptyOptionCountsAsAbsent) {
    ASSERT_TRUE(write_file(kSas, "config sas 'config'\n\toption address ''\n"));
    EXPECT_EQ(get("config", "address"), "1:untouched");
}

TEST_F(UciStoreTest, LaterSectionOfTheSameNameWins) {
    ASSERT_TRUE(write_file(kSas,
                           "config sas 'config'\n\toption address 'first'\n\toption auto '1'\n"
                           "config sas 'operation'\n\toption status 'Granted'\n"
                           "config sas 'config'\n\toption address 'second'\n"));
    EXPECT_EQ(get("config", "address"), "1:second");
    EXPECT_EQ(get("config", "auto"), "1:1");
}

TEST_F(UciStoreTest, LongValueIsCutToSizeMinusOneAndTerminated) {
    ASSERT_TRUE(write_file(kSas, "config sas 'config'\n\toption address '0123456789'\n"));
    char buffer[6];
    std::memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(config_get(kSas, "config", "address", buffer, sizeof buffer), 1u);
    EXPECT_STREQ(buffer, "01234");
}

TEST_F(UciStoreTest, ShortValueClearsTheWholeBufferFirst) {
    ASSERT_TRUE(write_file(kSas, "config sas 'config'\n\toption address 'ab'\n"));
    char buffer[8];
    std::memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(config_get(kSas, "config", "address", buffer, sizeof buffer), 1u);
    EXPECT_EQ(std::string(buffer, sizeof buffer), std::string("ab\0\0\0\0\0\0", 8));
}

TEST_F(UciStoreTest, GetRejectsMissingArguments) {
    ASSERT_TRUE(write_file(kSas, kTypicalFile));
    char buffer[16] = "keep";
    EXPECT_EQ(config_get(nullptr, "config", "enableMode", buffer, sizeof buffer), 0u);
    EXPECT_EQ(config_get(kSas, nullptr, "enableMode", buffer, sizeof buffer), 0u);
    EXPECT_EQ(config_get(kSas, "config", nullptr, buffer, sizeof buffer), 0u);
    EXPECT_EQ(config_get(kSas, "config", "enableMode", nullptr, sizeof buffer), 0u);
    EXPECT_EQ(config_get(kSas, "config", "enableMode", buffer, 0), 0u);
    EXPECT_STREQ(buffer, "keep");
}

TEST_F(UciStoreTest, PathWithoutSlashIsRefused) {
    ASSERT_EQ(chdir("/etc/config"), 0);
    ASSERT_TRUE(write_file(kSas, kTypicalFile));
    EXPECT_EQ(get("config", "enableMode", "sas"), "0:untouched");
    EXPECT_EQ(config_set("sas", "config", "enableMode", "0"), 0u);
    EXPECT_EQ(read_file(kSas), kTypicalFile);
}

TEST_F(UciStoreTest, PackageNameOf64CharactersIsRefusedAnd63Accepted) {
    std::string name63(63, 'p');
    std::string name64(64, 'p');
    std::string path63 = "/tmp/" + name63;
    std::string path64 = "/tmp/" + name64;
    expect_63_read_and_64_refused(path63, path64);
    EXPECT_EQ(config_set(path63.c_str(), "config", "enableMode", "0"), 1u);
    EXPECT_EQ(get("config", "enableMode", path63.c_str()), "1:0");
}

TEST_F(UciStoreTest, DirectoryPartOf64CharactersIsRefusedAnd63Accepted) {
    // "/tmp/" + 57 characters + "/" is 63 characters with its final '/'.
    std::string dir63 = "/tmp/" + std::string(57, 'd');
    std::string dir64 = "/tmp/" + std::string(58, 'd');
    ASSERT_EQ(mkdir(dir63.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(dir64.c_str(), 0755), 0);
    std::string path63 = dir63 + "/sas";
    std::string path64 = dir64 + "/sas";
    expect_63_read_and_64_refused(path63, path64);
}

TEST_F(UciStoreTest, LongestPossiblePathIsAcceptedAnd129CharactersRefused) {
    // 63-character directory part and a 63-character package: 126 characters.
    // The limit on the whole path is reached with a deeper directory instead.
    std::string dir = "/tmp/" + std::string(57, 'd');
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    std::string path126 = dir + "/" + std::string(63, 'p');
    ASSERT_TRUE(write_file(path126, kTypicalFile));
    EXPECT_EQ(get("config", "enableMode", path126.c_str()), "1:1");
    // 129 characters: rejected before the parts are looked at.
    std::string path129 = path126 + "xyz";
    ASSERT_EQ(path129.size(), 129u);
    EXPECT_EQ(get("config", "enableMode", path129.c_str()), "0:untouched");
    EXPECT_EQ(config_set(path129.c_str(), "config", "enableMode", "0"), 0u);
}

TEST_F(UciStoreTest, RuntimeCacheInTmpIsAPackageToo) {
    ASSERT_TRUE(write_file("/tmp/sas_cache", "config cache 'cache'\n\toption ipforward '1'\n"));
    EXPECT_EQ(get("cache", "ipforward", kRuntimeCachePath), "1:1");
    EXPECT_EQ(config_set(kRuntimeCachePath, "cache", "ipforward", "0"), 1u);
    EXPECT_EQ(get("cache", "ipforward", kRuntimeCachePath), "1:0");
    EXPECT_EQ(read_file("/tmp/sas_cache"), "\nconfig cache 'cache'\n\toption ipforward '0'\n\n");
}

TEST_F(UciStoreTest, SetWritesTheLibuciExportFormat) {
    ASSERT_TRUE(write_file(kSas,
                           "# written by hand\n"
                           "config sas config\n"
                           "  option enableMode 1 # on\n"
                           "  option address \"https://sas\"\n"
                           "config sas operation\n"
                           "  option status Registered\n"));
    EXPECT_EQ(config_set(kSas, "operation", "status", "Granted"), 1u);
    EXPECT_EQ(read_file(kSas),
              "\nconfig sas 'config'\n"
              "\toption enableMode '1'\n"
              "\toption address 'https://sas'\n"
              "\nconfig sas 'operation'\n"
              "\toption status 'Granted'\n"
              "\n");
}

TEST_F(UciStoreTest, SetAddsAMissingOptionAtTheEndOfItsSection) {
    ASSERT_TRUE(write_file(kSas, kTypicalFile));
    EXPECT_EQ(config_set(kSas, "config", "usedp", "0"), 1u);
    EXPECT_EQ(get("config", "usedp"), "1:0");
    EXPECT_EQ(read_file(kSas),
              "\nconfig sas 'config'\n"
              "\toption enableMode '1'\n"
              "\toption address 'https://sas.example.net/v1.2'\n"
              "\toption usedp '0'\n"
              "\nconfig sas 'operation'\n"
              "\toption status 'Registered'\n"
              "\n");
}

TEST_F(UciStoreTest, SetIntoAMissingSectionWritesNothingAndStillGivesOne) {
    const std::string original = "# keep me\n" + std::string(kTypicalFile);
    ASSERT_TRUE(write_file(kSas, original));
    EXPECT_EQ(config_set(kSas, "cellInfo", "bandwidth", "20"), 1u);
    EXPECT_EQ(read_file(kSas), original);
    EXPECT_EQ(get("cellInfo", "bandwidth"), "1:untouched");
}

TEST_F(UciStoreTest, SetIntoAMissingFileCreatesNothingAndStillGivesOne) {
    EXPECT_EQ(config_set(kSas, "config", "enableMode", "1"), 1u);
    EXPECT_FALSE(test::file_exists(kSas));
}

TEST_F(UciStoreTest, SetRejectsMissingArguments) {
    ASSERT_TRUE(write_file(kSas, kTypicalFile));
    EXPECT_EQ(config_set(nullptr, "config", "enableMode", "0"), 0u);
    EXPECT_EQ(config_set(kSas, nullptr, "enableMode", "0"), 0u);
    EXPECT_EQ(config_set(kSas, "config", nullptr, "0"), 0u);
    EXPECT_EQ(config_set(kSas, "config", "enableMode", nullptr), 0u);
    EXPECT_EQ(read_file(kSas), kTypicalFile);
}

TEST_F(UciStoreTest, SetOfAnEmptyValueRemovesTheOption) {
    ASSERT_TRUE(write_file(kSas, "config sas 'sasConfig'\n\toption powerSpectralDensity '20'\n"
                                 "\toption RadioEnable '1'\n"));
    EXPECT_EQ(config_set(kSas, "sasConfig", "powerSpectralDensity", ""), 1u);
    EXPECT_EQ(get("sasConfig", "powerSpectralDensity"), "1:untouched");
    EXPECT_EQ(read_file(kSas), "\nconfig sas 'sasConfig'\n\toption RadioEnable '1'\n\n");
}

TEST_F(UciStoreTest, ValuesWithQuotesAndNewlinesRoundTrip) {
    ASSERT_TRUE(write_file(kSas, kTypicalFile));
    const char* tricky = "it's \"quoted\" \\ # not a comment ; not a separator\nsecond line\t$x";
    EXPECT_EQ(config_set(kSas, "config", "address", tricky), 1u);
    char buffer[256] = {};
    EXPECT_EQ(config_get(kSas, "config", "address", buffer, sizeof buffer), 1u);
    EXPECT_STREQ(buffer, tricky);
    EXPECT_NE(read_file(kSas).find("'it'\\''s \"quoted\""), std::string::npos);
}

TEST_F(UciStoreTest, SetKeepsTheFileMode) {
    ASSERT_TRUE(write_file(kSas, kTypicalFile));
    ASSERT_EQ(chmod(kSas, 0640), 0);
    EXPECT_EQ(config_set(kSas, "config", "enableMode", "0"), 1u);
    struct stat info{};
    ASSERT_EQ(stat(kSas, &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
    EXPECT_EQ(get("config", "enableMode"), "1:0");
}

TEST_F(UciStoreTest, SetLeavesNoTemporaryFileBehind) {
    ASSERT_TRUE(write_file(kSas, kTypicalFile));
    for (int i = 0; i < 20; ++i) config_set(kSas, "config", "enableMode", i % 2 ? "1" : "0");
    EXPECT_EQ(test::shell("ls -A /etc/config | grep -c uci-"), "0\n");
}

TEST_F(UciStoreTest, UnreadableFileGivesZeroAndSetWritesNothing) {
    const std::string broken = "config sas 'config'\n\toption enableMode '1\n";
    ASSERT_TRUE(write_file(kSas, broken));
    EXPECT_EQ(get("config", "enableMode"), "0:untouched");
    EXPECT_EQ(config_set(kSas, "config", "enableMode", "0"), 1u);
    EXPECT_EQ(read_file(kSas), broken);
}

TEST_F(UciStoreTest, DirectoryInsteadOfFileGivesZero) {
    ASSERT_EQ(mkdir("/tmp/sas_cache", 0755), 0);
    EXPECT_EQ(get("cache", "ipforward", kRuntimeCachePath), "0:untouched");
    EXPECT_EQ(config_set(kRuntimeCachePath, "cache", "ipforward", "1"), 1u);
    rmdir("/tmp/sas_cache");
}

TEST_F(UciStoreTest, BinaryJunkGivesZero) {
    std::string junk;
    for (int i = 0; i < 4096; ++i) junk += static_cast<char>((i * 7919) & 0xff);
    ASSERT_TRUE(write_file(kSas, junk));
    EXPECT_EQ(get("config", "enableMode"), "0:untouched");
    EXPECT_EQ(config_set(kSas, "config", "enableMode", "1"), 1u);
    EXPECT_EQ(read_file(kSas), junk);
}

TEST_F(UciStoreTest, OneMegabyteLineIsReadAndCut) {
    std::string big(1 << 20, 'v');
    ASSERT_TRUE(write_file(kSas, "config sas 'config'\n\toption address '" + big + "'\n"));
    EXPECT_EQ(get("config", "address"), "1:" + big.substr(0, 255));
}

TEST_F(UciStoreTest, OneMegabyteLineOfGarbageGivesZero) {
    ASSERT_TRUE(write_file(kSas, std::string(1 << 20, 'x') + "\n"));
    EXPECT_EQ(get("config", "enableMode"), "0:untouched");
}

TEST_F(UciStoreTest, AnonymousSectionsAreKeptAndNeverMatched) {
    ASSERT_TRUE(write_file(kSas, "config sas\n\toption status 'x'\nconfig sas 'operation'\n"
                                 "\toption status 'Registered'\n"));
    EXPECT_EQ(get("", "status"), "1:untouched");
    EXPECT_EQ(config_set(kSas, "operation", "status", "Granted"), 1u);
    EXPECT_EQ(read_file(kSas),
              "\nconfig sas\n\toption status 'x'\n"
              "\nconfig sas 'operation'\n\toption status 'Granted'\n\n");
}

TEST_F(UciStoreTest, ListsSurviveASetOfAnotherOption) {
    ASSERT_TRUE(write_file(kSas, "config sas 'config'\n\tlist dns '1.1.1.1'\n\tlist dns \"8.8.8.8\"\n"));
    EXPECT_EQ(config_set(kSas, "config", "auto", "1"), 1u);
    EXPECT_EQ(read_file(kSas), "\nconfig sas 'config'\n\tlist dns '1.1.1.1'\n\tlist dns '8.8.8.8'\n"
                               "\toption auto '1'\n\n");
}

ino_t inode_of(const char* path) {
    struct stat info{};
    return stat(path, &info) == 0 ? info.st_ino : 0;
}

// Flash wears: a set that would leave the values as they are leaves the file
// itself as it is (same inode, same bytes, even when hand-formatted).
void expect_set_leaves_the_file(const std::string& content, const char* option, const char* value) {
    ASSERT_TRUE(write_file(kSas, content));
    const ino_t before = inode_of(kSas);
    EXPECT_EQ(config_set(kSas, "config", option, value), 1u);
    EXPECT_EQ(read_file(kSas), content);
    EXPECT_EQ(inode_of(kSas), before);
}

TEST_F(UciStoreTest, SetOfTheValueAlreadyThereDoesNotRewriteTheFile) {
    expect_set_leaves_the_file("config sas config\n  option enableMode 1 # on\n", "enableMode", "1");
}

TEST_F(UciStoreTest, RemovalOfAnAbsentOptionDoesNotRewriteTheFile) {
    expect_set_leaves_the_file(kTypicalFile, "usedp", "");
}

TEST_F(UciStoreTest, ADifferentValueIsStillWritten) {
    ASSERT_TRUE(write_file(kSas, kTypicalFile));
    EXPECT_EQ(config_set(kSas, "config", "enableMode", "0"), 1u);
    EXPECT_EQ(get("config", "enableMode"), "1:0");
    EXPECT_EQ(config_set(kSas, "config", "enableMode", "1"), 1u);
    EXPECT_EQ(read_file(kSas), kTypicalFile);
}

TEST_F(UciStoreTest, AListWithTheSameTextIsReplacedByTheOption) {
    ASSERT_TRUE(write_file(kSas, "config sas 'config'\n\tlist auto '1'\n"));
    EXPECT_EQ(config_set(kSas, "config", "auto", "1"), 1u);
    EXPECT_EQ(read_file(kSas), "\nconfig sas 'config'\n\toption auto '1'\n\n");
}

TEST_F(UciStoreTest, RuntimeCacheIsNotRewrittenWithTheSameValue) {
    const std::string cache = "config cache 'cache'\n\toption ipforward '1'\n";
    ASSERT_TRUE(write_file(kRuntimeCachePath, cache));
    const ino_t before = inode_of(kRuntimeCachePath);
    EXPECT_EQ(config_set(kRuntimeCachePath, "cache", "ipforward", "1"), 1u);
    EXPECT_EQ(read_file(kRuntimeCachePath), cache);
    EXPECT_EQ(inode_of(kRuntimeCachePath), before);
}

}  // namespace
}  // namespace cbsd::config
