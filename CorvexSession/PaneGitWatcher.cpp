#include "CorvexSession/PaneGitWatcher.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include "CorvexKit/ProcessRun.h"

namespace corvex {

namespace {

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

std::string lastComponent(const std::string& path) {
    auto slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string trimmed(const std::string& text) {
    auto first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// The url of [remote "origin"] in a git config.
std::optional<std::string> originURL(const std::string& config) {
    bool inOrigin = false;
    for (const auto& raw : lines(config)) {
        auto line = trimmed(raw);
        if (line.empty() || line[0] == '#' || line[0] == ';') continue;
        if (line[0] == '[') {
            inOrigin = line == "[remote \"origin\"]";
            continue;
        }
        if (!inOrigin) continue;
        auto equals = line.find('=');
        if (equals != std::string::npos && trimmed(line.substr(0, equals)) == "url") {
            return trimmed(line.substr(equals + 1));
        }
    }
    return std::nullopt;
}

std::string absolute(const std::string& path, const std::string& base) {
    return !path.empty() && path[0] == '/' ? path : base + "/" + path;
}

std::optional<std::string> readText(const std::string& path) {
    std::ifstream in(path);
    if (!in) return std::nullopt;
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::optional<std::string> runGit(const std::vector<std::string>& arguments) {
    try {
        auto result = runProcess(ProcessRequest{"git", arguments, std::nullopt, std::nullopt, false});
        if (result.status != 0) return std::nullopt;
        return result.out;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

} // namespace

std::optional<PaneGit> paneGitFrom(const std::string& revParse, const std::string& head, const std::string& config) {
    auto parts = lines(revParse);
    if (parts.size() < 3 || parts[0].empty()) return std::nullopt;
    const auto& root = parts[0];
    auto gitDir = absolute(parts[1], root);
    auto commonDir = absolute(parts[2], root);
    PaneGit git;
    git.root = root;
    git.remote = originURL(config);
    auto headLines = lines(head);
    auto ref = headLines.empty() ? std::string() : trimmed(headLines[0]);
    if (ref.starts_with("ref: refs/heads/")) {
        git.branch = ref.substr(16);
    } else if (ref.starts_with("ref: ")) {
        git.branch = ref.substr(5);
    } else if (!ref.empty()) {
        git.head = ref.substr(0, 7);
    }
    // A linked worktree keeps its own git folder inside the main repository's.
    if (gitDir != commonDir) {
        auto main = commonDir.size() > 5 && commonDir.ends_with("/.git") ? commonDir.substr(0, commonDir.size() - 5)
                                                                          : commonDir;
        git.repo = lastComponent(main);
        git.worktree = Worktree{lastComponent(root), root};
    } else {
        git.repo = lastComponent(root);
    }
    return git;
}

PaneGitWatcher::PaneGitWatcher(GitRunner runner) : runner_(runner ? std::move(runner) : GitRunner(runGit)) {}

std::optional<PaneGit> PaneGitWatcher::facts(const std::string& folder, Clock::time_point now) {
    auto root = rootOf_.find(folder);
    std::string key = root == rootOf_.end() || root->second.empty() ? folder : root->second;
    if (auto known = known_.find(key); known != known_.end() && now - known->second.at < std::chrono::seconds(1)) {
        return known->second.git;
    }
    ++runs_;
    auto out = runner_({"-C", folder, "rev-parse", "--path-format=absolute", "--show-toplevel", "--git-dir",
                        "--git-common-dir"});
    std::optional<PaneGit> git;
    if (out) {
        auto found = lines(*out);
        if (found.size() >= 3 && !found[0].empty()) {
            auto head = readText(absolute(found[1], found[0]) + "/HEAD").value_or("");
            auto config = readText(absolute(found[2], found[0]) + "/config").value_or("");
            git = paneGitFrom(*out, head, config);
        }
    }
    key = git && git->root ? *git->root : folder;
    rootOf_[folder] = git && git->root ? *git->root : std::string();
    known_[key] = Known{git, now};
    return git;
}

bool GitRefreshSchedule::due(uint64_t pane, const std::string& folder, uint64_t seq, Clock::time_point now) {
    auto found = seen_.find(pane);
    bool ask = found == seen_.end() || found->second.folder != folder || now - found->second.askedAt >= staleAfter ||
               (seq == found->second.lastSeq && seq != found->second.askedAtSeq);
    if (ask) {
        seen_[pane] = Seen{folder, seq, seq, now};
    } else {
        found->second.lastSeq = seq;
    }
    return ask;
}

void GitRefreshSchedule::keepOnly(const std::vector<uint64_t>& panes) {
    std::erase_if(seen_, [&](const auto& entry) {
        return std::find(panes.begin(), panes.end(), entry.first) == panes.end();
    });
}

} // namespace corvex
