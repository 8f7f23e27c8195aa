#include "CorvexKit/RemoteSetup.h"

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <unordered_map>

#include <nlohmann/json.hpp>

namespace corvex::RemoteSetup {

// Kept to POSIX sh so that dash, bash and the BSD shells all run it. Values are printed with
// printf, since dash's echo would read backslashes in a path as escapes. The daemon gets
// /dev/null as input: the script itself arrives on standard input and must not be eaten.
const std::string_view probeScript = R"PROBE(echo corvexd-probe=1
os=$(uname -s 2>/dev/null)
case "$os" in
  Linux) os=linux ;;
  Darwin) os=macos ;;
  *) os=$(printf '%s' "$os" | tr '[:upper:]' '[:lower:]') ;;
esac
arch=$(uname -m 2>/dev/null)
case "$arch" in
  arm64|aarch64) arch=aarch64 ;;
  x86_64|amd64) arch=x86_64 ;;
esac
printf 'os=%s\n' "$os"
printf 'arch=%s\n' "$arch"
if [ -n "${CORVEXD_INSTALL_DIR:-}" ]; then
  base=$CORVEXD_INSTALL_DIR
elif [ "$os" = macos ]; then
  base="$HOME/Library/Application Support/corvexd/bin"
else
  base="${XDG_DATA_HOME:-$HOME/.local/share}/corvexd/bin"
fi
printf 'base=%s\n' "$base"
corvexd_builds_in() {
  names=
  if [ -d "$1" ]; then
    for entry in "$1"/*; do
      name=${entry##*/}
      if [ "$2" = skip-current ] && [ "$name" = current ]; then continue; fi
      if [ -f "$entry/corvexd" ] && [ -x "$entry/corvexd" ]; then
        names="${names:+$names }$name"
      fi
    done
  fi
  printf '%s' "$names"
}
printf 'installed=%s\n' "$(corvexd_builds_in "$base" skip-current)"
fallback="${TMPDIR:-/tmp}/corvexd-bin-$(id -u)"
printf 'fallback_base=%s\n' "$fallback"
printf 'fallback_installed=%s\n' "$(corvexd_builds_in "$fallback" keep-current)"
if [ -n "${CORVEXD_RUNTIME_DIR:-}" ]; then
  runtime=$CORVEXD_RUNTIME_DIR
elif [ "$os" = macos ]; then
  runtime="$(getconf DARWIN_USER_TEMP_DIR 2>/dev/null)corvexd"
else
  runtime="/tmp/corvexd-$(id -u)"
fi
current=$(readlink "$base/current" 2>/dev/null)
printf 'current=%s\n' "$current"
printf 'runtime=%s\n' "$runtime"
case "$current" in
  /*) current_exe="$current/corvexd" ;;
  *) current_exe="$base/$current/corvexd" ;;
esac
corvexd_alive_pid() {
  pid=$(cat "$1" 2>/dev/null)
  case "$pid" in
    ''|*[!0-9]*) return 1 ;;
  esac
  kill -0 "$pid" 2>/dev/null
}
corvexd_exe_of() {
  exe=$(readlink "/proc/$1/exe" 2>/dev/null)
  if [ -z "$exe" ]; then
    exe=$(ps -o comm= -p "$1" 2>/dev/null)
  fi
  printf '%s' "${exe% (deleted)}"
}
builds_read=no
corvexd_build_of() {
  if [ "$builds_read" = no ]; then
    builds=$("$current_exe" status --print-builds 2>/dev/null </dev/null)
    builds_read=yes
  fi
  printf '%s\n' "$builds" | sed -n "s/^$1=//p" | head -n 1
}
if [ -S "$runtime/corvexd.sock" ] && corvexd_alive_pid "$runtime/corvexd.pid"; then
  echo daemon=running
  printf 'daemon_pid=%s\n' "$pid"
  printf 'daemon_exe=%s\n' "$(corvexd_exe_of "$pid")"
  if [ -n "$current" ] && [ -f "$current_exe" ] && [ -x "$current_exe" ]; then
    printf 'daemon_build=%s\n' "$(corvexd_build_of serve)"
  fi
else
  echo daemon=stopped
fi
if corvexd_alive_pid "$runtime/holder.pid"; then
  printf 'holder_pid=%s\n' "$pid"
  printf 'holder_exe=%s\n' "$(corvexd_exe_of "$pid")"
  if [ -n "$current" ] && [ -f "$current_exe" ] && [ -x "$current_exe" ]; then
    printf 'holder_build=%s\n' "$(corvexd_build_of holder)"
  fi
fi
if mkdir -p "$base" 2>/dev/null && [ -w "$base" ]; then
  echo writable=yes
else
  echo writable=no
fi
)PROBE";

// The upload lands in a temporary file beside its final place and only moves there once
// it has answered with the expected id, so a cut-off upload never becomes a build.
const std::string_view installScript = R"INSTALL(set -u
d="$2/$1"
t="$d/.corvexd.$$.tmp"
if ! mkdir -p "$d" 2>/dev/null; then
  printf 'corvexd-install: cannot create %s\n' "$d" >&2
  exit 5
fi
trap 'rm -f "$t"' EXIT
if ! cat 2>/dev/null >"$t"; then
  printf 'corvexd-install: cannot write %s (disk full or read-only?)\n' "$t" >&2
  exit 5
fi
chmod 755 "$t" || exit 5
if ! got=$("$t" build-id </dev/null); then
  printf 'corvexd-install: the uploaded binary does not run here (wrong platform, or noexec mount)\n' >&2
  exit 4
fi
if [ "$got" != "$1" ]; then
  printf 'corvexd-install: uploaded binary is %s, expected %s (truncated upload?)\n' "$got" "$1" >&2
  exit 4
fi
mv -f "$t" "$d/corvexd" || exit 5
trap - EXIT
printf 'installed=%s\n' "$d/corvexd"
)INSTALL";

std::string quote(std::string_view s) {
    std::string out = "'";
    for (char c : s) {
        if (c == '\'') {
            out += "'\\''";
        } else {
            out += c;
        }
    }
    out += '\'';
    return out;
}

std::string envPrefix(const std::optional<std::string>& installDir,
                      const std::optional<std::string>& runtimeDir,
                      const std::optional<std::string>& ephemeral) {
    if (!installDir && !runtimeDir && !ephemeral) return "";
    std::string out = "env ";
    if (installDir) out += "CORVEXD_INSTALL_DIR=" + *installDir + " ";
    if (runtimeDir) {
        out += "CORVEXD_RUNTIME_DIR=" + *runtimeDir + " ";
        out += "CORVEXD_CONFIG=" + *runtimeDir + "/config.toml ";
    }
    if (ephemeral) out += "CORVEXD_EPHEMERAL=" + quote(*ephemeral) + " ";
    return out;
}

std::string probeCommand(std::string_view env) { return std::string(env) + "sh -s"; }

static std::string daemonCommand(std::string_view path, std::string_view env, std::string_view subcommand) {
    return std::string(env) + quote(path) + " " + std::string(subcommand);
}

std::string bridgeCommand(std::string_view path, std::string_view env) { return daemonCommand(path, env, "bridge"); }
std::string shutdownCommand(std::string_view path, std::string_view env) {
    return daemonCommand(path, env, "shutdown");
}
std::string stopCommand(std::string_view path, std::string_view env) { return daemonCommand(path, env, "stop"); }

std::string installedPath(std::string_view base, std::string_view id) {
    return std::string(base) + "/" + std::string(id) + "/corvexd";
}

std::string installCommand(std::string_view id, std::string_view quotedBase, std::string_view env) {
    return std::string(env) + "sh -c " + quote(installScript) + " sh " + quote(id) + " " + std::string(quotedBase);
}

static std::vector<std::string> splitAtBlanks(std::string_view text) {
    std::vector<std::string> words;
    std::istringstream stream{std::string(text)};
    for (std::string word; stream >> word;) words.push_back(word);
    return words;
}

std::optional<Probe> Probe::parse(std::string_view output) {
    std::unordered_map<std::string, std::string> values;
    size_t start = 0;
    while (start <= output.size()) {
        size_t end = output.find('\n', start);
        if (end == std::string_view::npos) end = output.size();
        std::string_view line = output.substr(start, end - start);
        start = end + 1;
        size_t equals = line.find('=');
        if (line.empty() || equals == std::string_view::npos) continue;
        values[std::string(line.substr(0, equals))] = std::string(line.substr(equals + 1));
    }
    auto value = [&](const char* key) -> std::optional<std::string> {
        auto found = values.find(key);
        if (found == values.end()) return std::nullopt;
        return found->second;
    };
    auto nonEmpty = [&](const char* key) -> std::optional<std::string> {
        auto found = value(key);
        if (found && found->empty()) return std::nullopt;
        return found;
    };

    if (!value("corvexd-probe")) return std::nullopt;
    auto os = value("os");
    auto arch = value("arch");
    auto base = value("base");
    if (!os || !arch || !base) return std::nullopt;

    Probe probe;
    probe.os = *os;
    probe.arch = *arch;
    probe.base = *base;
    for (auto& name : splitAtBlanks(value("installed").value_or(""))) {
        if (name != "current") probe.installed.push_back(name);
    }
    probe.runtime = value("runtime").value_or("");
    probe.daemonRunning = value("daemon") == "running";
    probe.daemonExe = nonEmpty("daemon_exe");
    probe.writable = value("writable") == "yes";
    probe.current = nonEmpty("current");
    probe.daemonBuild = nonEmpty("daemon_build");
    probe.holderBuild = nonEmpty("holder_build");
    probe.fallbackBase = nonEmpty("fallback_base");
    probe.fallbackInstalled = splitAtBlanks(value("fallback_installed").value_or(""));
    return probe;
}

Manifest Manifest::decode(std::string_view text) {
    try {
        auto json = nlohmann::json::parse(text);
        Manifest manifest;
        manifest.version = json.at("version").get<std::string>();
        for (auto& [platform, entry] : json.at("builds").items()) {
            Build build;
            build.target = entry.at("target").get<std::string>();
            build.id = entry.at("id").get<std::string>();
            build.size = entry.at("size").get<int64_t>();
            build.file = entry.at("file").get<std::string>();
            manifest.builds.emplace(platform, std::move(build));
        }
        return manifest;
    } catch (const nlohmann::json::exception& error) {
        throw std::runtime_error(std::string("manifest: ") + error.what());
    }
}

Manifest Manifest::load(const std::string& folder) {
    std::string path = folder + "/manifest.json";
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("manifest: cannot read " + path);
    std::ostringstream text;
    text << file.rdbuf();
    return decode(text.str());
}

std::string_view versionPart(std::string_view id) { return id.substr(0, id.find('-')); }

static bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Orders two version texts with every run of digits taken as one number.
static int compareNumerically(std::string_view a, std::string_view b) {
    size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            size_t runA = i, runB = j;
            while (runA < a.size() && a[runA] == '0') ++runA;
            while (runB < b.size() && b[runB] == '0') ++runB;
            size_t endA = runA, endB = runB;
            while (endA < a.size() && isDigit(a[endA])) ++endA;
            while (endB < b.size() && isDigit(b[endB])) ++endB;
            std::string_view digitsA = a.substr(runA, endA - runA);
            std::string_view digitsB = b.substr(runB, endB - runB);
            if (digitsA.size() != digitsB.size()) return digitsA.size() < digitsB.size() ? -1 : 1;
            if (int order = digitsA.compare(digitsB); order != 0) return order < 0 ? -1 : 1;
            i = endA;
            j = endB;
        } else {
            if (a[i] != b[j]) return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]) ? -1 : 1;
            ++i;
            ++j;
        }
    }
    if (i == a.size() && j == b.size()) return 0;
    return i == a.size() ? -1 : 1;
}

bool isOlder(std::string_view a, std::string_view b) { return compareNumerically(versionPart(a), versionPart(b)) < 0; }

std::optional<std::string> installID(std::string_view executablePath) {
    std::vector<std::string_view> components;
    size_t start = 0;
    while (start <= executablePath.size()) {
        size_t end = executablePath.find('/', start);
        if (end == std::string_view::npos) end = executablePath.size();
        if (end > start) components.push_back(executablePath.substr(start, end - start));
        start = end + 1;
    }
    if (components.size() < 2 || components.back() != "corvexd") return std::nullopt;
    std::string_view parent = components[components.size() - 2];
    if (parent.find('-') == std::string_view::npos) return std::nullopt;
    return std::string(parent);
}

bool isOutdated(const std::optional<std::string>& runningExecutable, std::string_view bundledID) {
    if (!runningExecutable) return true;
    constexpr std::string_view currentLink = "/current/corvexd";
    if (runningExecutable->ends_with(currentLink)) return false;
    auto id = installID(*runningExecutable);
    if (!id) return true;
    if (*id == bundledID) return false;
    return isOlder(*id, bundledID);
}

} // namespace corvex::RemoteSetup
