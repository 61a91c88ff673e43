#include <gtest/gtest.h>

#include "main/options.h"

TEST(SplitList, DropsEmptyPieces) { EXPECT_EQ(split_list(",a,,b,"), (std::vector<std::string>{"a", "b"})); }
