#include "corvexd/SavedTree.h"

#include <fstream>
#include <iostream>
#include <sstream>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "CorvexKit/SessionCodec.h"
#include "CorvexKit/SessionCodecJSON.h"
#include "corvexd/RuntimeDirectory.h"
#include "corvexd/SettingsFile.h"

namespace corvexd {

namespace {

// Only the places: what a restart can bring back.
corvex::ModelState kept(corvex::ModelState state) {
    state.rev = 0;
    for (auto& pane : state.panes) {
        corvex::Pane place;
        place.id = pane.id;
        place.cols = pane.cols;
        place.rows = pane.rows;
        place.command = pane.command;
        place.cwd = pane.cwd;
        pane = std::move(place);
    }
    return state;
}

} // namespace

std::optional<corvex::ModelState> SavedTree::load() const {
    std::ifstream in(path_);
    if (!in) return std::nullopt;
    std::stringstream text;
    text << in.rdbuf();
    auto document = nlohmann::json::parse(text.str(), nullptr, false);
    if (!document.is_object()) return std::nullopt;
    try {
        return corvex::decodeJSON<corvex::ModelState>(document);
    } catch (const std::exception& error) {
        std::cerr << "corvexd: the saved tree in " << path_ << " doesn't read: " << error.what() << "\n";
        return std::nullopt;
    }
}

void SavedTree::save(const corvex::ModelState& state) {
    std::string text = corvex::toJSON(kept(state)).dump() + "\n";
    std::lock_guard guard(lock_);
    if (text == written_) return;
    try {
        writeFileWhole(path_, text);
        written_ = std::move(text);
    } catch (const DaemonError& error) {
        std::cerr << "corvexd: " << error.what() << "\n";
    }
}

void SavedTree::remove(const std::string& path) { ::unlink(path.c_str()); }

} // namespace corvexd
