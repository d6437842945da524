#include <gtest/gtest.h>

#include "GroundKit/StringAssistant/StringAssistant.h"

TEST(StringAssistant, Format) { EXPECT_EQ(CStringAssistant::format("%d.%d", 1, 0), "1.0"); }
