#include <gtest/gtest.h>

#include <cstdlib>
#include <unistd.h>

#include "Platform/System.h"

using namespace platform;

namespace {
struct ScopedEnv {
    std::string name;
    std::optional<std::string> old;
    ScopedEnv(std::string n, const char* value) : name(std::move(n)) {
        if (const char* v = getenv(name.c_str())) old = v;
        value ? setenv(name.c_str(), value, 1) : unsetenv(name.c_str());
    }
    ~ScopedEnv() { old ? setenv(name.c_str(), old->c_str(), 1) : unsetenv(name.c_str()); }
};
} // namespace

TEST(System, TemporaryDirectoryFollowsTmpdirWithoutTrailingSlash) {
    {
        ScopedEnv env("TMPDIR", "/var/tmp/x//");
        EXPECT_EQ(temporaryDirectory(), "/var/tmp/x");
    }
    {
        ScopedEnv env("TMPDIR", "");
        EXPECT_EQ(temporaryDirectory(), "/tmp");
    }
    ScopedEnv env("TMPDIR", nullptr);
    EXPECT_EQ(temporaryDirectory(), "/tmp");
}

TEST(System, HomeFallsBackToThePasswordDatabase) {
    {
        ScopedEnv env("HOME", "/somewhere");
        EXPECT_EQ(homeDirectory(), "/somewhere");
    }
    ScopedEnv env("HOME", nullptr);
    EXPECT_FALSE(homeDirectory().empty());
    EXPECT_EQ(homeDirectory().front(), '/');
}

TEST(System, IdentityFacts) {
    EXPECT_EQ(userId(), getuid());
    EXPECT_FALSE(hostName().empty());
    EXPECT_EQ(userShell().front(), '/');
}
