#include <QApplication>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

#include "Support/AppHarness.h"

namespace corvex::apptest {

// Window tests share one QApplication, a home folder of their own and the build's corvexd.
int runWindowTests(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    char pattern[] = "/tmp/corvex-home-XXXXXX";
    std::string home = ::mkdtemp(pattern);
    ::setenv("HOME", home.c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (home + "/.config").c_str(), 1);
    ::setenv("XDG_STATE_HOME", (home + "/.local/state").c_str(), 1);
    ::setenv("SHELL", "/bin/sh", 1);
    ::setenv("ENV", "", 1);
    ::setenv("PS1", "$ ", 1);
    if (const char* bin = std::getenv("CORVEX_BUILD_BIN")) {
        ::setenv("CORVEXD_BIN", (std::string(bin) + "/corvexd").c_str(), 1);
    }
    QApplication app(argc, argv);
    QApplication::setOrganizationName("Corvex");
    QApplication::setApplicationName("Corvex");
    int result = RUN_ALL_TESTS();
    std::error_code ignored;
    std::filesystem::remove_all(home, ignored);
    return result;
}

} // namespace corvex::apptest
