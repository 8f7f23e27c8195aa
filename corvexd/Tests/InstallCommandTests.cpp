#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Support/DaemonHarness.h"

using namespace corvexd::testing;
namespace fs = std::filesystem;

namespace {

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

TEST(CorvexdInstall, CopiesItselfUnderItsBuildIdAndMakesThatCurrent) {
    DaemonHarness daemon;
    std::string id = firstLine(daemon.run({"build-id"}).out);
    std::string base = daemon.scratch().path() + "/bin";
    std::map<std::string, std::string> env{{"CORVEXD_INSTALL_DIR", base}};

    auto where = daemon.run({"install", "--print-path"}, env);
    EXPECT_EQ(where.out, base + "/" + id + "/corvexd\n");
    EXPECT_FALSE(fs::exists(base)) << "printing the path installs nothing";

    // Another build was current: the link moves, the old build stays.
    fs::create_directories(base + "/0.0.1-old");
    fs::create_symlink("0.0.1-old", base + "/current");
    auto installed = daemon.run({"install"}, env);
    ASSERT_EQ(installed.status, 0) << installed.err;
    EXPECT_EQ(installed.out, where.out);
    EXPECT_EQ(fs::read_symlink(base + "/current"), id);
    EXPECT_TRUE(fs::exists(base + "/0.0.1-old"));
    struct stat info{};
    ASSERT_EQ(::stat((base + "/" + id + "/corvexd").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0755u);
    EXPECT_EQ(fs::file_size(base + "/" + id + "/corvexd"), fs::file_size(builtProgram("corvexd")));
    for (const auto& entry : fs::directory_iterator(base + "/" + id)) {
        EXPECT_EQ(entry.path().filename(), "corvexd") << "no temporary file is left";
    }
}

TEST(CorvexdInstall, InstalledBuildStaysInItsOwnBase) {
    // An upload that landed in the temporary fallback is made current there, not copied home.
    DaemonHarness daemon;
    std::string id = firstLine(daemon.run({"build-id"}).out);
    std::string fallback = daemon.scratch().path() + "/fallback";
    fs::create_directories(fallback + "/" + id);
    fs::copy_file(builtProgram("corvexd"), fallback + "/" + id + "/corvexd");
    ::chmod((fallback + "/" + id + "/corvexd").c_str(), 0755);

    std::string home = daemon.scratch().path() + "/home";
    auto installed = Ran{};
    {
        // The copy runs itself, with a home whose data folder must stay untouched.
        std::string command = "HOME=" + home + " XDG_DATA_HOME= " + fallback + "/" + id + "/corvexd install";
        FILE* pipe = ::popen(command.c_str(), "r");
        char buffer[4096];
        while (size_t count = std::fread(buffer, 1, sizeof buffer, pipe)) installed.out.append(buffer, count);
        installed.status = ::pclose(pipe);
    }
    EXPECT_EQ(installed.status, 0);
    EXPECT_EQ(installed.out, fallback + "/" + id + "/corvexd\n");
    EXPECT_EQ(fs::read_symlink(fallback + "/current"), id);
    EXPECT_FALSE(fs::exists(home + "/.local/share/corvexd"));

    auto homeDefault = daemon.run({"install", "--print-path"}, {{"HOME", home}, {"XDG_DATA_HOME", ""}, {"CORVEXD_INSTALL_DIR", ""}});
    EXPECT_EQ(homeDefault.out, home + "/.local/share/corvexd/bin/" + id + "/corvexd\n");
}

} // namespace
