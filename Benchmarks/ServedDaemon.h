#pragma once

#include <benchmark/benchmark.h>

#include <exception>
#include <memory>

#include "corvexd/Tests/Support/DaemonHarness.h"

namespace corvex::bench {

// A served daemon, or absent (with the benchmark skipped) when it can't be had.
inline std::unique_ptr<corvexd::testing::DaemonHarness> servedDaemon(benchmark::State& state) {
    if (!corvexd::testing::isBuilt("corvexd")) {
        state.SkipWithError("corvexd is not built");
        return nullptr;
    }
    auto daemon = std::make_unique<corvexd::testing::DaemonHarness>();
    try {
        daemon->serve();
    } catch (const std::exception& error) {
        state.SkipWithError(error.what());
        return nullptr;
    }
    return daemon;
}

} // namespace corvex::bench
