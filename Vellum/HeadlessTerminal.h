#pragma once

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "Vellum/Terminal.h"

namespace vellum {

// A terminal without a view. Bytes come in through `feed`; what the terminal sends back goes
// to `onSend` when set, and is otherwise collected in `replies`. The process side joins later.
class HeadlessTerminal : public TerminalDelegate {
public:
    explicit HeadlessTerminal(TerminalOptions options = {}) : terminal(std::make_unique<Terminal>(this, std::move(options))) {}

    void feed(std::span<const uint8_t> bytes) {
        if (terminal) terminal->feed(bytes);
    }
    void feed(std::string_view text) {
        if (terminal) terminal->feed(text);
    }

    void sizeChanged(Terminal&) override {}
    void send(Terminal&, std::span<const uint8_t> data) override {
        if (onSend) onSend(data);
        else replies.append(data.begin(), data.end());
    }

    std::unique_ptr<Terminal> terminal;
    std::function<void(std::span<const uint8_t>)> onSend;
    std::string replies;
};

} // namespace vellum
