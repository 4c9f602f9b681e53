// Answered or not: the product query counts only when the modem manager
// answered, and a modem manager that refuses (restarting, ubusd gone) leaves
// the link and the cell as they were last seen.  Runs the lab's `ubus`
// stand-in, whose "registered" and "ubusd" states print what the real CLI
// prints then.
#include "base/system.h"
#include "config/uci_store.h"
#include "modem/lab_modem.h"
#include "modem/lte_info.h"
#include "modem/modem.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>

namespace cbsd::modem {
namespace {

constexpr const char* kProduct = R"("productmodule": "RQ5518L-M2", "SN": "SN0042")";

std::string state(const std::string& members) { return "{" + members + "}"; }

class ModemAnswer : public ::testing::Test {
protected:
    void SetUp() override {
        mkdir("/root/sas", 0755);
        test::write_file("/root/sas/sas.log", "");
        test::write_file(config::kSasConfigPath, "config sas 'config'\n\nconfig sas 'cellInfo'\n");
    }
    static std::string log_text() { return test::read_file("/root/sas/sas.log"); }
};

TEST_F(ModemAnswer, AnAnsweredProductQueryGivesModelAndSerialFromOneReply) {
    test::set_lab_modem(state(kProduct));
    ProductInfo info{};
    EXPECT_TRUE(read_product_info(info));
    EXPECT_STREQ(info.model, "RQ5518L-M2");
    EXPECT_STREQ(info.serial, "SN0042");
    // The same as the two queries of their own read.
    char model[32] = {};
    get_product_model(model, sizeof model - 1);
    char serial[256] = {};
    get_serial_number(serial, sizeof serial - 1);
    EXPECT_STREQ(info.model, model);
    EXPECT_STREQ(info.serial, serial);
}

TEST_F(ModemAnswer, AnAnswerWithoutTheMembersIsStillAnAnswer) {
    // A modem manager that reports no model: the normal path (catch-all row).
    test::set_lab_modem("{}");
    ProductInfo info{};
    EXPECT_TRUE(read_product_info(info));
    EXPECT_STREQ(info.model, "");
    EXPECT_STREQ(info.serial, "");
    test::set_lab_modem(R"({"raw": {"getproductinfo": ""}})");  // no reply data, status 0
    EXPECT_TRUE(read_product_info(info));
}

TEST_F(ModemAnswer, ObjectNotRegisteredNoUbusdOrAFailureIsNoAnswer) {
    for (const char* members :
         {R"("registered": false)", R"("ubusd": false)", R"("registered": false, "ubusd": false)",
          R"("fail": ["getproductinfo"])", R"("fail": true, "fail_status": 253)"}) {
        test::set_lab_modem(state(std::string(kProduct) + ", " + members));
        ProductInfo info{};
        EXPECT_FALSE(read_product_info(info)) << members;
        EXPECT_STREQ(info.model, "") << members;
        EXPECT_STREQ(info.serial, "") << members;
    }
}

TEST_F(ModemAnswer, AQueryKilledAtItsTimeLimitIsNoAnswer) {
    test::set_lab_modem(state(std::string(kProduct) + R"(, "hang": ["getproductinfo"])"));
    base::TimeLimitCap cap(1);
    ProductInfo info{};
    EXPECT_FALSE(read_product_info(info));
}

TEST_F(ModemAnswer, AMissingUbusIsNoAnswer) {
    std::string path = std::getenv("PATH");
    setenv("PATH", "/nonexistent", 1);
    ProductInfo info{};
    bool answered = read_product_info(info);
    setenv("PATH", path.c_str(), 1);
    EXPECT_FALSE(answered);
}

TEST_F(ModemAnswer, ARefusedStatusQueryKeepsTheAttachmentLastSeen) {
    test::set_lab_modem(R"({"netstat": 4})");
    ASSERT_TRUE(is_lte_connected());
    for (const char* members : {R"("registered": false)", R"("ubusd": false)", R"("fail": true)"}) {
        test::set_lab_modem(state(std::string(R"("netstat": 1, )") + members));
        EXPECT_TRUE(is_lte_connected()) << members;
        EXPECT_TRUE(lte_connected_seen_within(0)) << members;  // the watch's own query too
    }
    test::set_lab_modem(R"({"netstat": 1})");
    EXPECT_FALSE(is_lte_connected());
    test::set_lab_modem(R"({"registered": false})");
    EXPECT_FALSE(is_lte_connected());  // the down link stays down
}

TEST_F(ModemAnswer, ARefusalBeforeAnyAnswerReadsAsNotAttached) {
    test::set_lab_modem(R"({"registered": false})");
    EXPECT_FALSE(is_lte_connected());
}

TEST_F(ModemAnswer, AStatusQueryKilledAtItsTimeLimitReadsAsNotAttached) {
    // As it always did: a hung modem manager is a link in trouble.
    test::set_lab_modem(R"({"netstat": 4})");
    ASSERT_TRUE(is_lte_connected());
    test::set_lab_modem(R"({"netstat": 4, "hang": ["getltestatus"]})");
    base::TimeLimitCap cap(1);
    EXPECT_FALSE(is_lte_connected());
}

TEST_F(ModemAnswer, AnInfoReplyWithoutTheMembersIsNoRefusal) {
    // The modem answered and knows no cell: read as it always was.
    test::set_lab_modem("{}");
    EXPECT_EQ(get_dl_frequency(), 0);
    EXPECT_FALSE(lte_info_refused());
}

}  // namespace
}  // namespace cbsd::modem
