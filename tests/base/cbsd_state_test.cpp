#include "base/cbsd_state.h"

#include <gtest/gtest.h>

using namespace cbsd::base;

TEST(CbsdState, NamesInTableOrder) {
    EXPECT_STREQ(cbsd_state_name(1), "Unregistered");
    EXPECT_STREQ(cbsd_state_name(2), "Registered");
    EXPECT_STREQ(cbsd_state_name(3), "Granted");
    EXPECT_STREQ(cbsd_state_name(4), "Authorized");
}

TEST(CbsdState, IdsOutsideTheTableGiveEmptyText) {
    EXPECT_STREQ(cbsd_state_name(0), "");
    EXPECT_STREQ(cbsd_state_name(5), "");
    EXPECT_STREQ(cbsd_state_name(0xFFFFFFFFu), "");
}

TEST(CbsdState, TableEndsWithAnEmptyRow) {
    EXPECT_EQ(CbsdStateTable[4].id, 0u);
    EXPECT_STREQ(CbsdStateTable[4].name, "");
}
