#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "CorvexKit/SessionModel.h"

namespace corvexd {

// The tree of workspaces, tabs and panes, kept in a file so that a daemon that ends without
// being told to end its shells for good brings the same places back at its next start: the
// layout, and each pane's command, folder and size. Nothing else of a pane is kept.
class SavedTree {
public:
    explicit SavedTree(std::string path) : path_(std::move(path)) {}

    // The tree left by an earlier run; absent when there is none or it doesn't read.
    std::optional<corvex::ModelState> load() const;
    // Writes the tree when what is kept of it changed since the last write. From any thread.
    void save(const corvex::ModelState& state);
    // Forgets the tree: the next start begins empty.
    static void remove(const std::string& path);

private:
    std::string path_;
    std::mutex lock_;
    std::string written_;
};

} // namespace corvexd
