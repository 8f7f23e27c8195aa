#include <gtest/gtest.h>

#include <cstdlib>
#include <unistd.h>

#include "Platform/Tests/Support/ScopedEnvironment.h"
#include "Platform/System.h"

using namespace platform;
using platform::testing::ScopedEnvironment;


TEST(System, TemporaryDirectoryFollowsTmpdirWithoutTrailingSlash) {
    {
        ScopedEnvironment env("TMPDIR", "/var/tmp/x//");
        EXPECT_EQ(temporaryDirectory(), "/var/tmp/x");
    }
    {
        ScopedEnvironment env("TMPDIR", "");
        EXPECT_EQ(temporaryDirectory(), "/tmp");
    }
    ScopedEnvironment env("TMPDIR", nullptr);
    EXPECT_EQ(temporaryDirectory(), "/tmp");
}

TEST(System, HomeFallsBackToThePasswordDatabase) {
    {
        ScopedEnvironment env("HOME", "/somewhere");
        EXPECT_EQ(homeDirectory(), "/somewhere");
    }
    ScopedEnvironment env("HOME", nullptr);
    EXPECT_FALSE(homeDirectory().empty());
    EXPECT_EQ(homeDirectory().front(), '/');
}
