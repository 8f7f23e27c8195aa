#include "CorvexKit/LocalDaemon.h"

#include <algorithm>
#include <filesystem>
#include <unistd.h>

#include "CorvexKit/RemoteSetup.h"

namespace corvex {

namespace fs = std::filesystem;

namespace {

std::string trimmed(const std::string& text) {
    const char* space = " \t\r\n\f\v";
    size_t first = text.find_first_not_of(space);
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(space) - first + 1);
}

bool isExecutable(const std::string& path) { return ::access(path.c_str(), X_OK) == 0 && fs::is_regular_file(path); }

std::string withoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

void setVariable(std::vector<std::string>& env, const std::string& name, const std::string& value) {
    std::erase_if(env, [&](const std::string& entry) { return entry.starts_with(name + "="); });
    env.push_back(name + "=" + value);
}

std::string parentOf(const std::string& path) { return fs::path(path).parent_path().string(); }

// The newest build directory in the base holding an executable corvexd.
std::optional<std::string> newestBuild(const std::string& base) {
    std::vector<std::string> ids;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(base, error)) {
        std::string name = entry.path().filename().string();
        if (name != "current" && isExecutable(entry.path().string() + "/corvexd")) ids.push_back(name);
    }
    if (ids.empty()) return std::nullopt;
    std::sort(ids.begin(), ids.end());
    return base + "/" + ids.back() + "/corvexd";
}

} // namespace

std::vector<std::string> LocalDaemon::environment() const {
    auto env = environmentWithout({"DROVER_", "CORVEX_"});
    if (runtimeDir) {
        setVariable(env, "CORVEXD_RUNTIME_DIR", *runtimeDir);
        setVariable(env, "CORVEXD_EPHEMERAL", "exit");
        setVariable(env, "CORVEXD_CONFIG", withoutTrailingSlash(*runtimeDir) + "/config.toml");
    }
    if (installDir) setVariable(env, "CORVEXD_INSTALL_DIR", *installDir);
    return env;
}

ProcessResult LocalDaemon::run(const std::string& executable, const std::vector<std::string>& arguments) const {
    ProcessRequest request;
    request.program = executable;
    request.arguments = arguments;
    request.environment = environment();
    request.outputThroughFiles = true;
    ProcessResult result = runProcess(request);
    result.out = trimmed(result.out);
    result.err = trimmed(result.err);
    return result;
}

void LocalDaemon::report(const std::string& line) const {
    if (log) log(line);
}

std::string LocalDaemon::bundledInstallPath() const {
    ProcessResult result;
    try {
        result = run(source, {"install", "--print-path"});
    } catch (const std::exception& error) {
        throw Failure(Failure::Kind::failed, std::string("Couldn't ask corvexd where it installs: ") + error.what());
    }
    if (result.status != 0 || result.out.empty()) {
        std::string detail = result.err.empty() ? "exit status " + std::to_string(result.status) : result.err;
        throw Failure(Failure::Kind::failed, "Couldn't ask corvexd where it installs: " + detail);
    }
    return result.out;
}

std::string LocalDaemon::installedPath() const {
    if (runInPlace) return source;
    std::string base = parentOf(parentOf(bundledInstallPath()));
    std::string candidate = base + "/current/corvexd";
    if (isExecutable(candidate)) return candidate;
    std::string detail;
    try {
        auto installed = run(source, {"install"});
        detail = installed.err.empty() ? "exit status " + std::to_string(installed.status) : installed.err;
    } catch (const std::exception& error) {
        detail = error.what();
    }
    if (isExecutable(candidate)) return candidate;
    if (auto newest = newestBuild(base)) return *newest;
    throw Failure(Failure::Kind::failed, "Couldn't install corvexd: " + detail);
}

std::optional<std::string> LocalDaemon::socketPath() const {
    // Any build answers this from the environment alone; asking the source installs nothing.
    auto result = run(source, {"status", "--print-socket"});
    if (result.status != 0 || result.out.empty()) return std::nullopt;
    return result.out;
}

void LocalDaemon::fail(const ProcessResult& result, const std::string& fallback) const {
    if (result.status == RemoteSetup::holderTooOldExit) {
        throw Failure(Failure::Kind::holderTooOld,
                      result.err.empty() ? "The running shells use an older corvexd." : result.err);
    }
    throw Failure(Failure::Kind::failed, result.err.empty() ? fallback : result.err);
}

void LocalDaemon::start() const {
    std::string path = installedPath();
    auto result = run(path, {"start"});
    if (result.status == 0) return;
    report("start (" + path + ") exited with " + std::to_string(result.status));
    fail(result, "corvexd start exited with " + std::to_string(result.status));
}

void LocalDaemon::upgrade() const {
    if (runInPlace) return;
    auto result = run(source, {"upgrade"});
    report("corvexd upgrade (" + source + ") exited with " + std::to_string(result.status));
    if (result.status != 0) fail(result, "corvexd upgrade exited with " + std::to_string(result.status));
}

void LocalDaemon::shutdownAndRemove() const {
    try {
        run(source, {"shutdown"});
    } catch (const std::exception&) {
        // Nothing to end, or nothing installed: the directories still go.
    }
    std::error_code ignored;
    if (installDir) fs::remove_all(*installDir, ignored);
    if (runtimeDir) fs::remove_all(*runtimeDir, ignored);
}

} // namespace corvex
