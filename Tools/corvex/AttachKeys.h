#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace corvex::cli {

// What the key after the prefix does while attached.
enum class AttachAction {
    detach,
    nextTab,
    previousTab,
    newTab,
    splitRight,
    splitDown,
    nextPane,
    previousPane,
    closePane,
    scrollback,
    sendPrefix,
};

struct AttachBinding {
    char key;
    AttachAction action;
    const char* meaning;
};

// Every binding, in the order `corvex attach --help` lists them.
const std::vector<AttachBinding>& attachBindings();

// "C-\", "C-a", "C-]" and the like: a control key, the only kind a prefix may be.
std::optional<char> parsePrefixKey(std::string_view text);
// How a prefix key is written for people: "Ctrl-\".
std::string prefixName(char prefix);

// `corvex attach --help` and `corvex run --help`; absent for other commands.
std::optional<std::string> commandHelp(const std::string& command);

// Splits what the user types into bytes for the pane and actions. The prefix may end one
// read and its key begin the next; the prefix typed twice sends it to the pane once, and a
// key bound to nothing is dropped.
class PrefixReader {
public:
    using Item = std::variant<std::string, AttachAction>;

    explicit PrefixReader(char prefix) : prefix_(prefix) {}
    std::vector<Item> feed(std::string_view typed);
    char prefix() const { return prefix_; }

private:
    char prefix_;
    bool armed_ = false;
};

} // namespace corvex::cli
