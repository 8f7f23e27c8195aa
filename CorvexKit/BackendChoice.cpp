#include "CorvexKit/BackendChoice.h"

#include <climits>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/System.h"

namespace corvex {

namespace {

std::optional<std::string> variable(const char* name) {
    const char* value = std::getenv(name);
    if (!value || !*value) return std::nullopt;
    return std::string(value);
}

std::string ownDirectory() {
    char path[PATH_MAX];
    ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0) return {};
    std::string exe(path, static_cast<size_t>(length));
    return exe.substr(0, exe.rfind('/'));
}

bool isExecutableFile(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

std::optional<std::string> nonEmpty(std::optional<std::string> value) {
    if (value && value->empty()) return std::nullopt;
    return value;
}

} // namespace

BackendInputs BackendInputs::current(const PreferenceStore& preferences, bool developmentBuild) {
    BackendInputs inputs;
    inputs.backendPreference = preferences.string(prefkey::backend);
    inputs.corvexdPath = nonEmpty(preferences.string(prefkey::corvexdPath));
    inputs.corvexdBin = variable("CORVEXD_BIN");
    inputs.runtimeDirPreference = nonEmpty(preferences.string(prefkey::corvexdRuntimeDir));
    inputs.runtimeDirVariable = variable("CORVEXD_RUNTIME_DIR");
    inputs.executableDirectory = ownDirectory();
    inputs.temporaryDirectory = platform::temporaryDirectory();
    inputs.developmentBuild = developmentBuild;
    inputs.isExecutable = isExecutableFile;
    return inputs;
}

BackendChoice BackendChoice::choose(const BackendInputs& inputs) {
    BackendChoice choice;
    if (inputs.backendPreference == "fake") {
        choice.inProcess = true;
        choice.logLine = "backend: fake";
        return choice;
    }
    // An override is run where it lies; the daemon beside the app is the bundled one.
    std::optional<std::string> candidate = inputs.corvexdPath ? inputs.corvexdPath : inputs.corvexdBin;
    choice.runInPlace = candidate.has_value();
    if (!candidate && !inputs.executableDirectory.empty()) candidate = inputs.executableDirectory + "/corvexd";
    if (!candidate || !inputs.isExecutable || !inputs.isExecutable(*candidate)) {
        choice.inProcess = true;
        choice.runInPlace = false;
        choice.logLine = "backend: no corvexd binary (tried " + candidate.value_or("nothing") +
                         "), using the fake backend";
        return choice;
    }
    choice.source = *candidate;
    if (inputs.runtimeDirPreference) choice.runtimeDir = inputs.runtimeDirPreference;
    else if (inputs.runtimeDirVariable) choice.runtimeDir = inputs.runtimeDirVariable;
    else if (inputs.developmentBuild) choice.runtimeDir = inputs.temporaryDirectory + "/corvex-dev";
    if (inputs.developmentBuild) choice.installDir = inputs.temporaryDirectory + "/corvex-dev-bin";
    return choice;
}

std::string BackendChoice::daemonLogLine(const std::string& socket) const {
    return "backend: corvexd from " + source + (runInPlace ? " (in place)" : "") + ", socket " + socket;
}

std::string clientIdentity(const std::optional<std::string>& version) {
    return "corvex-linux/" + (version && !version->empty() ? *version : std::string("dev"));
}

} // namespace corvex
