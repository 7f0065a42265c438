#include "UseOfC.h"

#include <gtest/gtest.h>

namespace {

TEST(CFunctions, areOfUseFromC)
{
    EXPECT_STREQ(useOfC(), nullptr);
}

} // namespace
