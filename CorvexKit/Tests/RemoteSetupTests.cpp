#include "CorvexKit/RemoteSetup.h"
#include "CorvexKit/ProcessRun.h"
#include "Support/ScratchDirectory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace fs = std::filesystem;
using namespace corvex;
using corvex::testing::readFile;
using corvex::testing::ScratchDirectory;
namespace rs = corvex::RemoteSetup;

namespace {

void writeFile(const fs::path& path, std::string_view text, fs::perms perms = fs::perms(0644)) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    fs::permissions(path, perms);
}

// A fake daemon: enough of corvexd for the scripts to talk to.
std::string fakeDaemon(std::string_view id) {
    return "#!/bin/sh\n"
           "case \"$1\" in\n"
           "  build-id) echo " + std::string(id) + " ;;\n"
           "  status) printf 'serve=" + std::string(id) + "\\nholder=0.0.9-old\\n' ;;\n"
           "esac\n";
}

// A scratch folder standing in for the far side's home and temporary folder.
class ScriptTest : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        fs::create_directories(home);
        fs::create_directories(tmp);
    }

    // Runs argv with a clean environment and `input` on standard input.
    ProcessResult run(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv = {},
                      std::string_view input = "") {
        std::vector<std::string> env{"PATH=/usr/bin:/bin", "HOME=" + home.string(), "TMPDIR=" + tmp.string()};
        env.insert(env.end(), extraEnv.begin(), extraEnv.end());
        return runProcess({argv[0], {argv.begin() + 1, argv.end()}, env, std::string(input), true});
    }

    ProcessResult probe(const std::vector<std::string>& extraEnv = {}) {
        return run({GetParam(), "-s"}, extraEnv, rs::probeScript);
    }

    // The install exactly as it goes over ssh: one command line for the login shell.
    ProcessResult install(std::string_view id, std::string_view quotedBase, std::string_view binary) {
        return run({GetParam(), "-c", rs::installCommand(id, quotedBase, "")}, {}, binary);
    }

    ScratchDirectory scratch;
    fs::path root = scratch.path(), home = root / "home", tmp = root / "tmp";
};

std::string expectedArch() {
    utsname name{};
    uname(&name);
    std::string machine = name.machine;
    if (machine == "arm64" || machine == "aarch64") return "aarch64";
    if (machine == "amd64" || machine == "x86_64") return "x86_64";
    return machine;
}

std::string uidText() { return std::to_string(getuid()); }

} // namespace

TEST(RemoteSetup, QuoteSurvivesTheShellWhateverTheText) {
    EXPECT_EQ(rs::quote("it's"), "'it'\\''s'");
    // Real shells must give back exactly the text that went in.
    for (std::string text : {"it's here", "''", "$HOME `id` $(id) \\n \"x\"", "a\nb", "'"}) {
        std::string twice = "/bin/sh -c " + rs::quote("printf %s " + rs::quote(text));
        EXPECT_EQ(runProcess({"/bin/sh", {"-c", twice}}).out, text);
    }
}

TEST(RemoteSetup, CommandLines) {
    EXPECT_EQ(rs::envPrefix(std::nullopt, std::nullopt, std::nullopt), "");
    EXPECT_EQ(rs::envPrefix(std::string(rs::devInstallDir), std::nullopt, std::nullopt),
              "env CORVEXD_INSTALL_DIR=$HOME/.local/share/corvex-dev/bin ");
    EXPECT_EQ(rs::envPrefix("/opt/d", "/tmp/r", "exit"),
              "env CORVEXD_INSTALL_DIR=/opt/d CORVEXD_RUNTIME_DIR=/tmp/r CORVEXD_CONFIG=/tmp/r/config.toml "
              "CORVEXD_EPHEMERAL='exit' ");

    // The probe and install lines run for real in the script tests below.
    EXPECT_EQ(rs::bridgeCommand("/home/u/it's/corvexd", "env A=1 "), "env A=1 '/home/u/it'\\''s/corvexd' bridge");
    EXPECT_EQ(rs::stopCommand("/x/corvexd", ""), "'/x/corvexd' stop");
}

TEST(RemoteSetup, ProbeParsingToleratesNoiseAroundTheScript) {
    auto probe = rs::Probe::parse(
        "Welcome to Ubuntu 22.04 LTS\n"
        "\n"
        " * Documentation:  https://help.example\n"
        "corvexd-probe=1\n"
        "os=linux\narch=x86_64\nbase=/home/u/.local/share/corvexd/bin\n"
        "installed=0.1.0-abc current 0.0.9-def\n"
        "fallback_base=/tmp/corvexd-bin-1000\nfallback_installed=\n"
        "current=\nruntime=/tmp/corvexd-1000\n"
        "daemon=running\ndaemon_pid=42\ndaemon_exe=\n"
        "daemon_build=0.1.0-abc\nholder_build=\n"
        "writable=no\nwritable=yes\n"
        "odd=a=b\n");
    ASSERT_TRUE(probe);
    EXPECT_EQ(probe->platform(), "linux-x86_64");
    EXPECT_EQ(probe->installed, (std::vector<std::string>{"0.1.0-abc", "0.0.9-def"}));
    EXPECT_TRUE(probe->fallbackInstalled.empty());
    EXPECT_EQ(probe->runtime, "/tmp/corvexd-1000");
    EXPECT_TRUE(probe->daemonRunning);
    EXPECT_EQ(probe->daemonExe, std::nullopt) << "empty values count as absent";
    EXPECT_EQ(probe->holderBuild, std::nullopt);
    EXPECT_EQ(probe->daemonBuild, "0.1.0-abc");
    EXPECT_TRUE(probe->writable) << "a later key overwrites an earlier one";
    EXPECT_FALSE(probe->isFresh());

    // The marker may come last, and a bare minimum is enough.
    auto minimal = rs::Probe::parse("os=macos\narch=aarch64\nbase=/b\ninstalled=\nlast login: today\ncorvexd-probe=1");
    ASSERT_TRUE(minimal);
    EXPECT_EQ(minimal->platform(), "macos-aarch64");
    EXPECT_TRUE(minimal->installed.empty());
    EXPECT_FALSE(minimal->daemonRunning);
    EXPECT_TRUE(minimal->isFresh());

    EXPECT_FALSE(rs::Probe::parse("corvexd-probe=1\nos=linux\narch=x86_64\n")) << "no base";
    EXPECT_FALSE(rs::Probe::parse("os=linux\narch=x86_64\nbase=/b\n")) << "no marker";
    EXPECT_FALSE(rs::Probe::parse("corvexd-probe=1\nos=linux\nbase=/b\n")) << "no arch";
}

TEST(RemoteSetup, Manifest) {
    std::string text = R"({"version":"0.2.0","extra":true,"builds":{
        "linux-x86_64":{"target":"x86_64-unknown-linux-gnu","id":"0.2.0-abc","size":123456,"file":"corvexd-linux-x86_64"},
        "macos-aarch64":{"target":"aarch64-apple-darwin","id":"0.2.0-abc","size":99,"file":"corvexd-macos-aarch64"}}})";
    auto manifest = rs::Manifest::decode(text);
    EXPECT_EQ(manifest.version, "0.2.0");
    ASSERT_EQ(manifest.builds.size(), 2u);
    EXPECT_EQ(manifest.builds.at("linux-x86_64"),
              (rs::Build{"x86_64-unknown-linux-gnu", "0.2.0-abc", 123456, "corvexd-linux-x86_64"}));

    EXPECT_THROW(rs::Manifest::decode(R"({"version":"0.2.0","builds":{"x":{"target":"t","id":"i","size":"big","file":"f"}}})"),
                 std::runtime_error);
    EXPECT_THROW(rs::Manifest::decode("not json"), std::runtime_error);

    ScratchDirectory folder;
    EXPECT_THROW(rs::Manifest::load(folder.path()), std::runtime_error);
    writeFile(fs::path(folder.path()) / "manifest.json", text);
    EXPECT_EQ(rs::Manifest::load(folder.path()), manifest);
}

TEST(RemoteSetup, BuildIDsAndOutdatedDaemons) {
    EXPECT_TRUE(rs::isOlder("0.9.1-abc", "0.10.0-def"));
    EXPECT_FALSE(rs::isOlder("0.2.0-a", "0.2.0-b")) << "only the version part counts";
    EXPECT_TRUE(rs::isOlder("0.2-x", "0.2.1-x"));
    EXPECT_TRUE(rs::isOlder("1.9", "1.10")) << "an id without a hash is all version";
    EXPECT_FALSE(rs::isOlder("1.010-x", "1.9-x")) << "leading zeros don't make a number smaller";

    EXPECT_EQ(rs::installID("/home/u/.local/share/corvexd/bin/0.1.0-abc/corvexd"), "0.1.0-abc");
    EXPECT_EQ(rs::installID("/0.1.0-abc//corvexd"), "0.1.0-abc") << "empty components don't count";
    EXPECT_EQ(rs::installID("/usr/local/bin/corvexd"), std::nullopt) << "no '-' in the folder";
    EXPECT_EQ(rs::installID("/b/0.1.0-abc/corvexd-old"), std::nullopt);
    EXPECT_EQ(rs::installID("/corvexd"), std::nullopt);

    EXPECT_TRUE(rs::isOutdated(std::nullopt, "0.1.0-a"));
    EXPECT_FALSE(rs::isOutdated("/home/u/.local/share/corvexd/bin/current/corvexd", "9.9.9-z"));
    EXPECT_FALSE(rs::isOutdated("/b/0.1.0-a/corvexd", "0.1.0-a"));
    EXPECT_TRUE(rs::isOutdated("/b/0.9.1-a/corvexd", "0.10.0-b"));
    EXPECT_FALSE(rs::isOutdated("/b/0.10.0-a/corvexd", "0.9.1-b")) << "a newer daemon stays";
    EXPECT_FALSE(rs::isOutdated("/b/0.1.0-a/corvexd", "0.1.0-b")) << "same version, other hash";
}

TEST_P(ScriptTest, ProbeOfAFreshMachine) {
    // A daemon socket with a pid file that names no process is no running daemon.
    fs::path runtime = root / "runtime";
    writeFile(runtime / "corvexd.pid", "-1\n");
    writeFile(runtime / "holder.pid", "999999999\n");

    auto result = probe({"CORVEXD_RUNTIME_DIR=" + runtime.string()});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "") << "errors stay hidden";
    auto found = rs::Probe::parse(result.out);
    ASSERT_TRUE(found) << result.out;
    fs::path base = home / ".local/share/corvexd/bin";
    EXPECT_EQ(found->arch, expectedArch());
    EXPECT_EQ(found->base, base.string());
    EXPECT_TRUE(found->isFresh());
    EXPECT_EQ(found->fallbackBase, (tmp / ("corvexd-bin-" + uidText())).string());
    EXPECT_FALSE(found->daemonRunning);
    EXPECT_TRUE(found->writable);
    EXPECT_TRUE(fs::is_directory(base)) << "the probe makes the base";
    EXPECT_NE(result.out.find("\ndaemon=stopped\n"), std::string::npos);
    EXPECT_EQ(result.out.find("holder_pid="), std::string::npos);

    // Without an override the runtime directory is the per-user one in /tmp, and
    // XDG_DATA_HOME moves the base.
    auto plain = rs::Probe::parse(probe({"XDG_DATA_HOME=" + (root / "data").string()}).out);
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->runtime, "/tmp/corvexd-" + uidText());
    EXPECT_EQ(plain->base, (root / "data/corvexd/bin").string());
}

TEST_P(ScriptTest, ProbeOfAMachineWithBuildsAndARunningDaemon) {
    fs::path base = root / "it's base";
    writeFile(base / "0.1.0-abc/corvexd", fakeDaemon("0.1.0-abc"), fs::perms(0755));
    writeFile(base / "0.0.9-old/corvexd", "not executable");
    fs::create_directories(base / "empty-dir");
    fs::create_directories(base / "0.0.8-dir/corvexd");
    fs::create_symlink("0.1.0-abc", base / "current");
    fs::path fallback = tmp / ("corvexd-bin-" + uidText());
    writeFile(fallback / "0.0.7-tmp/corvexd", "#!/bin/sh\n", fs::perms(0755));
    fs::create_symlink("0.0.7-tmp", fallback / "current");

    // A live daemon: a socket, and a pid file naming a process that exists (this one).
    fs::path runtime = root / "runtime";
    fs::create_directories(runtime);
    int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string socketPath = (runtime / "corvexd.sock").string();
    ASSERT_LT(socketPath.size(), sizeof(address.sun_path));
    std::strcpy(address.sun_path, socketPath.c_str());
    ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    writeFile(runtime / "corvexd.pid", std::to_string(getpid()) + "\n");
    writeFile(runtime / "holder.pid", std::to_string(getpid()));

    // The install directory comes through the env prefix, unquoted, exactly as over ssh.
    std::string prefix = rs::envPrefix("\"$HOME/../it's base\"", runtime.string(), std::nullopt);
    auto result = run({GetParam(), "-c", rs::probeCommand(prefix)}, {}, rs::probeScript);
    close(sock);
    EXPECT_EQ(result.status, 0) << result.err;
    auto found = rs::Probe::parse(result.out);
    ASSERT_TRUE(found) << result.out;
    EXPECT_EQ(found->base, (home / "../it's base").string());
    EXPECT_EQ(found->installed, (std::vector<std::string>{"0.1.0-abc"}));
    EXPECT_EQ(found->fallbackInstalled, (std::vector<std::string>{"0.0.7-tmp", "current"}))
        << "the fallback listing keeps a current link";
    EXPECT_EQ(found->current, "0.1.0-abc");
    EXPECT_EQ(found->daemonExe, fs::read_symlink("/proc/self/exe").string());
    EXPECT_EQ(found->daemonBuild, "0.1.0-abc");
    EXPECT_EQ(found->holderBuild, "0.0.9-old");
    EXPECT_NE(result.out.find("\ndaemon_pid=" + std::to_string(getpid()) + "\n"), std::string::npos);
    EXPECT_NE(result.out.find("\nholder_pid=" + std::to_string(getpid()) + "\n"), std::string::npos);
}

TEST_P(ScriptTest, InstallPutsAWorkingBinaryInPlace) {
    fs::path base = root / "it's base";
    auto result = install("0.1.0-abc", rs::quote(base.string()), fakeDaemon("0.1.0-abc"));
    EXPECT_EQ(result.status, 0) << result.err;
    fs::path installed = rs::installedPath(base.string(), "0.1.0-abc");
    EXPECT_EQ(result.out, "installed=" + installed.string() + "\n");
    EXPECT_EQ(readFile(installed), fakeDaemon("0.1.0-abc"));
    EXPECT_EQ(fs::status(installed).permissions() & fs::perms::all, fs::perms(0755));
    EXPECT_EQ(std::distance(fs::directory_iterator(base / "0.1.0-abc"), {}), 1) << "no temporary file left";

    // Again over an existing build, and into the fallback, whose expression expands there.
    EXPECT_EQ(install("0.1.0-abc", rs::quote(base.string()), fakeDaemon("0.1.0-abc")).status, 0);
    auto fallback = install("0.1.0-abc", rs::fallbackBase, fakeDaemon("0.1.0-abc"));
    EXPECT_EQ(fallback.status, 0) << fallback.err;
    EXPECT_TRUE(fs::exists(tmp / ("corvexd-bin-" + uidText()) / "0.1.0-abc/corvexd"));
}

TEST_P(ScriptTest, InstallRefusesAnUnusableUpload) {
    fs::path base = root / "base";
    fs::path folder = base / "0.1.0-abc";

    auto mismatch = install("0.1.0-abc", rs::quote(base.string()), fakeDaemon("0.0.1-wrong"));
    EXPECT_EQ(mismatch.status, 4);
    EXPECT_EQ(mismatch.err, "corvexd-install: uploaded binary is 0.0.1-wrong, expected 0.1.0-abc (truncated upload?)\n");

    auto broken = install("0.1.0-abc", rs::quote(base.string()), "#!/bin/sh\nexit 3\n");
    EXPECT_EQ(broken.status, 4);
    EXPECT_NE(broken.err.find("corvexd-install: the uploaded binary does not run here (wrong platform, or noexec mount)\n"),
              std::string::npos);

    auto foreign = install("0.1.0-abc", rs::quote(base.string()), "#!/nonexistent/interpreter\n");
    EXPECT_EQ(foreign.status, 4);

    EXPECT_TRUE(fs::is_empty(folder)) << "neither a build nor a temporary file stays behind";
}

TEST_P(ScriptTest, InstallRefusesADirectoryThatCannotTakeIt) {
    // As root, permission bits don't stop writes, so the refusals come from places that
    // refuse everyone: a base below a regular file can't be created...
    writeFile(root / "file", "x");
    std::string blocked = (root / "file/base").string();
    auto uncreatable = install("0.1.0-abc", rs::quote(blocked), fakeDaemon("0.1.0-abc"));
    EXPECT_EQ(uncreatable.status, 5);
    EXPECT_EQ(uncreatable.err, "corvexd-install: cannot create " + blocked + "/0.1.0-abc\n");

    // ...and a directory of /proc exists but takes no new file.
    auto unwritable = install("fdinfo", "/proc/self", fakeDaemon("fdinfo"));
    EXPECT_EQ(unwritable.status, 5);
    EXPECT_EQ(unwritable.err.rfind("corvexd-install: cannot write /proc/self/fdinfo/.corvexd.", 0), 0u) << unwritable.err;
    EXPECT_NE(unwritable.err.find(".tmp (disk full or read-only?)\n"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Shells, ScriptTest, ::testing::Values("/bin/dash", "/bin/bash"),
                         [](const auto& info) { return fs::path(info.param).filename().string(); });
