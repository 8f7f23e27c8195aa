#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "CorvexKit/SessionModel.h"

// What a pane's folder is in git: the repository, branch or head, remote and worktree.
namespace corvex {

// The facts from the output of `git rev-parse --show-toplevel --git-dir --git-common-dir` run
// in the folder, the text of the worktree's HEAD file (a branch, also one without commits yet,
// or a detached commit) and the text of the repository's config (for the origin's address).
// Absent when the output isn't that of a repository.
std::optional<PaneGit> paneGitFrom(const std::string& revParse, const std::string& head, const std::string& config);

// Asks git about folders, at most once a second for each repository: a folder of a
// repository asked about within the second gets the facts already known.
class PaneGitWatcher {
public:
    using Clock = std::chrono::steady_clock;
    // Runs git with the arguments; its standard output, absent when it failed.
    using GitRunner = std::function<std::optional<std::string>(const std::vector<std::string>& arguments)>;

    explicit PaneGitWatcher(GitRunner runner = {});
    std::optional<PaneGit> facts(const std::string& folder, Clock::time_point now = Clock::now());
    // How many times git was run, for the tests of the pace.
    int runs() const { return runs_; }

private:
    struct Known {
        std::optional<PaneGit> git;
        Clock::time_point at;
    };

    GitRunner runner_;
    int runs_ = 0;
    std::map<std::string, std::string> rootOf_; // folder to repository root, "" outside any
    std::map<std::string, Known> known_;        // by root, or by folder outside any repository
};

// When a pane's facts are worth asking for again. Branches move when a command runs, so a pane
// is asked about when its folder changes, and when its output went quiet after moving (a
// command, or some typing, has finished); an idle pane only every `staleAfter`, for changes
// made from outside it.
class GitRefreshSchedule {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds staleAfter{30};

    // Whether to ask now about the pane, whose folder and output position are these.
    bool due(uint64_t pane, const std::string& folder, uint64_t seq, Clock::time_point now);
    // Drops the panes not in the list.
    void keepOnly(const std::vector<uint64_t>& panes);

private:
    struct Seen {
        std::string folder;
        uint64_t askedAtSeq = 0;
        uint64_t lastSeq = 0;
        Clock::time_point askedAt;
    };
    std::map<uint64_t, Seen> seen_;
};

} // namespace corvex
