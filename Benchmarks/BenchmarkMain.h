#pragma once

#include <benchmark/benchmark.h>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace corvex::bench {

// Runs the benchmarks against the programs built beside this one (corvexd, corvex), unless
// CORVEX_BUILD_BIN names others; a peer that goes away must not end the run with SIGPIPE.
inline int runBesideBuild(int argc, char** argv) {
    if (!std::getenv("CORVEX_BUILD_BIN")) {
        char path[PATH_MAX];
        ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
        if (length > 0) {
            std::string exe(path, static_cast<size_t>(length));
            ::setenv("CORVEX_BUILD_BIN", exe.substr(0, exe.rfind('/')).c_str(), 1);
        }
    }
    ::signal(SIGPIPE, SIG_IGN);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

} // namespace corvex::bench
