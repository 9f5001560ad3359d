// The library example of the README, compiled and run as it stands there.

#include "ReadmeExampleIncludes.inc"

#include <gtest/gtest.h>

namespace {

TEST(Readme, LibraryExampleRuns) {
#include "ReadmeExampleBody.inc"
    EXPECT_EQ(v.AsString(), "ADA (3)");
}

} // namespace
