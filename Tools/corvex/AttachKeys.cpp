#include "Tools/corvex/AttachKeys.h"

#include <cctype>
#include <utility>

namespace corvex::cli {

const std::vector<AttachBinding>& attachBindings() {
    static const std::vector<AttachBinding> bindings{
        {'d', AttachAction::detach, "detach; the pane goes on"},
        {'n', AttachAction::nextTab, "next tab"},
        {'p', AttachAction::previousTab, "previous tab"},
        {'c', AttachAction::newTab, "new tab in this workspace"},
        {'%', AttachAction::splitRight, "split right"},
        {'"', AttachAction::splitDown, "split down"},
        {'o', AttachAction::nextPane, "next pane of the tab"},
        {';', AttachAction::previousPane, "previous pane of the tab"},
        {'x', AttachAction::closePane, "close the pane"},
        {'[', AttachAction::scrollback,
         "scrollback view: arrows, PgUp/PgDn, Home/End, k/j move; / searches older, n/N\n"
         "      next/previous match; q or Esc goes back to the live pane"},
    };
    return bindings;
}

std::optional<char> parsePrefixKey(std::string_view text) {
    if (text.size() != 3 || (text.substr(0, 2) != "C-" && text.substr(0, 2) != "c-")) return std::nullopt;
    unsigned char key = static_cast<unsigned char>(std::toupper(static_cast<unsigned char>(text[2])));
    if (key < '@' || key > '_') return std::nullopt;
    return static_cast<char>(key - '@');
}

std::string prefixName(char prefix) {
    char key = static_cast<char>(prefix + '@');
    return std::string("Ctrl-") + static_cast<char>(std::tolower(static_cast<unsigned char>(key)));
}

std::optional<std::string> commandHelp(const std::string& command) {
    if (command != "attach" && command != "run") return std::nullopt;
    std::string text = command == "attach" ? "usage: corvex attach PANE [--prefix KEY]\n\nShows the pane in this terminal"
                                           : "usage: corvex run [--prefix KEY]\n\nShows the focused pane (made when "
                                             "there is none) in this terminal";
    text += ", with a status line of the machine, the workspace and its tabs.\n"
            "Keys go to the pane, except after the prefix key (Ctrl-\\ unless --prefix names\n"
            "another, such as C-a), which takes one more key:\n\n";
    for (const auto& binding : attachBindings()) {
        text += "  ";
        text += binding.key;
        text += "   " + std::string(binding.meaning) + "\n";
    }
    text += "  the prefix again   send the prefix key itself to the pane\n";
    return text;
}

std::vector<PrefixReader::Item> PrefixReader::feed(std::string_view typed) {
    std::vector<Item> items;
    std::string pending;
    auto flush = [&] {
        if (!pending.empty()) items.emplace_back(std::exchange(pending, {}));
    };
    for (char c : typed) {
        if (!armed_) {
            if (c == prefix_) armed_ = true;
            else pending += c;
            continue;
        }
        armed_ = false;
        if (c == prefix_) {
            pending += c;
            continue;
        }
        for (const auto& binding : attachBindings()) {
            if (binding.key == c) {
                flush();
                items.emplace_back(binding.action);
                break;
            }
        }
    }
    flush();
    return items;
}

} // namespace corvex::cli
