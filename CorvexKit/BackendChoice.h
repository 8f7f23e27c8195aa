#pragma once

#include <functional>
#include <optional>
#include <string>

#include "CorvexKit/AppPreferences.h"

namespace corvex {

// What the app needs to know to pick the backend for this computer.
struct BackendInputs {
    std::optional<std::string> backendPreference;    // "Backend"
    std::optional<std::string> corvexdPath;          // "CorvexdPath"
    std::optional<std::string> corvexdBin;           // CORVEXD_BIN
    std::optional<std::string> runtimeDirPreference; // "CorvexdRuntimeDir"
    std::optional<std::string> runtimeDirVariable;   // CORVEXD_RUNTIME_DIR
    std::string executableDirectory;                 // where corvex-app lies
    std::string temporaryDirectory;
    bool developmentBuild = false;
    std::function<bool(const std::string&)> isExecutable;

    // Reads the preferences and the environment of this process.
    static BackendInputs current(const PreferenceStore& preferences, bool developmentBuild);
};

// The backend for this computer: the in-process one, or a corvexd run as described.
struct BackendChoice {
    bool inProcess = false;
    std::string source;
    bool runInPlace = false;
    std::optional<std::string> runtimeDir;
    std::optional<std::string> installDir;
    // The log line of an in-process choice; a daemon's line needs its socket (daemonLogLine).
    std::string logLine;

    static BackendChoice choose(const BackendInputs& inputs);
    std::string daemonLogLine(const std::string& socket) const;
};

// "corvex-linux/<version>", or ".../dev" without one.
std::string clientIdentity(const std::optional<std::string>& version);

} // namespace corvex
