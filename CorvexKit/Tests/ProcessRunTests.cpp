#include "CorvexKit/ProcessRun.h"

#include <gtest/gtest.h>

using namespace corvex;

namespace {

ProcessRequest shell(const std::string& script, std::optional<std::string> input = {}, bool files = false) {
    return {"/bin/sh", {"-c", script}, std::nullopt, std::move(input), files};
}

TEST(ProcessRun, LargeInputAndBothOutputsFlowTogether) {
    // Each stream is far beyond a pipe's buffer: feeding or draining one at a time would stall.
    std::string input(3 << 20, 'x');
    for (bool files : {false, true}) {
        auto result = runProcess(shell("cat; head -c 2000000 /dev/zero >&2; exit 7", input, files));
        EXPECT_EQ(result.status, 7);
        EXPECT_EQ(result.out, input) << files;
        EXPECT_EQ(result.err.size(), 2000000u) << files;
    }
}

TEST(ProcessRun, ChildThatIgnoresItsInputOrDiesBySignalIsStillReported) {
    auto ignoring = runProcess(shell("echo done", std::string(1 << 20, 'x')));
    EXPECT_EQ(ignoring.status, 0);
    EXPECT_EQ(ignoring.out, "done\n");
    EXPECT_EQ(runProcess(shell("kill -TERM $$")).status, 128 + 15);
    EXPECT_THROW(runProcess({"/nonexistent/program", {}, std::nullopt, std::nullopt, false}), std::runtime_error);
}

TEST(ProcessRun, EnvironmentIsExactlyWhatWasGiven) {
    ProcessRequest request = shell("echo \"$ONLY-${HOME:-unset}\"");
    request.environment = std::vector<std::string>{"ONLY=this"};
    EXPECT_EQ(runProcess(request).out, "this-unset\n");
    ::setenv("CORVEX_TEST_DROP", "1", 1);
    auto kept = environmentWithout({"CORVEX_TEST_"});
    ::unsetenv("CORVEX_TEST_DROP");
    for (const auto& entry : kept) EXPECT_FALSE(entry.starts_with("CORVEX_TEST_")) << entry;
    EXPECT_FALSE(kept.empty());
}

} // namespace
