#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What it takes to put the session daemon on another machine over plain ssh, with nothing
// but a POSIX shell at the far end: the probe script and its parsed answer, the install
// script, the command lines for the daemon's sub-commands, the manifest of bundled builds
// and the rules for reading build ids ("<version>-<hash>").
namespace corvex::RemoteSetup {

// The daemon's exit status when the running holder is too old to take this update.
inline constexpr int holderTooOldExit = 3;

// Shell expressions: they expand on the far side, so the fallback keeps its double quotes.
inline constexpr std::string_view fallbackBase = "\"${TMPDIR:-/tmp}/corvexd-bin-$(id -u)\"";
inline constexpr std::string_view devInstallDir = "$HOME/.local/share/corvex-dev/bin";
inline constexpr std::string_view devRuntimeDir = "/tmp/corvexd-dev-$(id -u)";
inline constexpr std::string_view removeDevDirsCommand =
    "rm -rf \"$HOME/.local/share/corvex-dev\" \"/tmp/corvexd-dev-$(id -u)\"";

// Prints one "key=value" per line after the marker "corvexd-probe=1"; run with "sh -s".
extern const std::string_view probeScript;
// Run as "sh -c <script> sh <id> <base>" with the binary on standard input. Exits 0 on
// success, 4 when the upload is unusable, 5 when the directory can't take it.
extern const std::string_view installScript;

// Single-quotes s for a POSIX shell; an embedded quote becomes '\''.
std::string quote(std::string_view s);

// "env NAME=value ... " (with a trailing blank), or "" when all three are absent. The
// directories go in unquoted because they may hold "$HOME" or "$(id -u)".
std::string envPrefix(const std::optional<std::string>& installDir,
                      const std::optional<std::string>& runtimeDir,
                      const std::optional<std::string>& ephemeral);

std::string probeCommand(std::string_view env);
std::string bridgeCommand(std::string_view path, std::string_view env);
std::string shutdownCommand(std::string_view path, std::string_view env);
std::string stopCommand(std::string_view path, std::string_view env);
std::string installedPath(std::string_view base, std::string_view id);
// quotedBase comes already quoted, since the fallback base must stay an expression.
std::string installCommand(std::string_view id, std::string_view quotedBase, std::string_view env);

// What the probe found on the far side.
struct Probe {
    std::string os;
    std::string arch;
    std::string base;
    std::string runtime;
    std::vector<std::string> installed; // never holds "current"
    bool daemonRunning = false;
    bool writable = false;
    std::optional<std::string> daemonExe;
    std::optional<std::string> current;
    std::optional<std::string> daemonBuild;
    std::optional<std::string> holderBuild;
    std::optional<std::string> fallbackBase;
    std::vector<std::string> fallbackInstalled;

    // Reads the probe's output, tolerating a motd or other noise around it; nothing
    // when the marker, "os", "arch" or "base" is missing.
    static std::optional<Probe> parse(std::string_view output);

    std::string platform() const { return os + "-" + arch; }
    bool isFresh() const { return installed.empty() && fallbackInstalled.empty(); }

    bool operator==(const Probe&) const = default;
};

// One daemon binary in the distribution folder.
struct Build {
    std::string target;
    std::string id;
    int64_t size = 0;
    std::string file; // file name inside the distribution folder

    bool operator==(const Build&) const = default;
};

// manifest.json of the distribution folder "corvexd-dist".
struct Manifest {
    std::string version;
    std::map<std::string, Build> builds; // keyed by platform, e.g. "linux-x86_64"

    // Throws std::runtime_error when the text isn't a manifest.
    static Manifest decode(std::string_view json);
    // Reads <folder>/manifest.json; throws std::runtime_error when it can't.
    static Manifest load(const std::string& folder);

    bool operator==(const Manifest&) const = default;
};

// The part of a build id before its first "-".
std::string_view versionPart(std::string_view id);
// True when a's version is older than b's; digit runs compare as numbers.
bool isOlder(std::string_view a, std::string_view b);
// The build id of an executable installed as ".../<id>/corvexd", else nothing.
std::optional<std::string> installID(std::string_view executablePath);
// Whether a running daemon executable should give way to the bundled build.
bool isOutdated(const std::optional<std::string>& runningExecutable, std::string_view bundledID);

} // namespace corvex::RemoteSetup
