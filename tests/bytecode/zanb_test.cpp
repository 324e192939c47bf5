#include <gtest/gtest.h>
#include "bytecode/zanb.h"
TEST(Zanb, Placeholder) { EXPECT_STREQ(tov::zanb::opName(7), "add"); }
