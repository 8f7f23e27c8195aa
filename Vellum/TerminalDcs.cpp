// Device control strings: the status-string request (DECRQSS), terminfo capabilities
// (XTGETTCAP) and sixel images.
#include "Vellum/Terminal.h"
#include "Vellum/TerminalParameters.h"

namespace vellum {

using sequence::collectIs;

std::unique_ptr<DcsHandler> makeSixelDcsHandler();

// A DECRQSS request: the payload is gathered and answered at the end of the string.
class DecrqssHandler final : public DcsHandler {
public:
    explicit DecrqssHandler(Terminal& terminal) : terminal(terminal) {}
    void hook(std::span<const uint8_t>, CsiParameters, uint8_t) override {}
    void put(std::span<const uint8_t> data) override {
        if (request.size() + data.size() <= 64) request.append(data.begin(), data.end());
    }
    void unhook() override {
        auto payload = terminal.statusStringPayload(request);
        if (!payload) terminal.log("Unknown DCS + " + request);
        terminal.sendResponse(statusStringReply(payload, terminal.cc));
    }

private:
    Terminal& terminal;
    std::string request;
};

// XTGETTCAP: hex names separated by ";", answered from the terminfo table.
class XtgettcapHandler final : public DcsHandler {
public:
    static constexpr size_t limit = 0x100000;
    explicit XtgettcapHandler(Terminal& terminal) : terminal(terminal) {}
    void hook(std::span<const uint8_t>, CsiParameters, uint8_t) override {}
    void put(std::span<const uint8_t> data) override {
        if (request.size() + data.size() > limit) overflowed = true;
        if (!overflowed) request.append(data.begin(), data.end());
    }
    void unhook() override {
        if (overflowed) return;
        std::string reply = terminfoCapabilityReplies(request, terminal.options_.termName, terminal.cc);
        if (!reply.empty()) terminal.sendResponse(reply);
    }

private:
    Terminal& terminal;
    std::string request;
    bool overflowed = false;
};

std::unique_ptr<DcsHandler> Terminal::dispatchDcs(std::span<const uint8_t> collect, uint8_t code, CsiParameters) {
    if (code != 'q') return nullptr;
    if (collectIs(collect, "$")) return std::make_unique<DecrqssHandler>(*this);
    if (collectIs(collect, "+")) return std::make_unique<XtgettcapHandler>(*this);
    if (collect.empty()) return makeSixelDcsHandler();
    return nullptr;
}

// The setting a control function would restore, as the parameters and final bytes of that
// function; nothing for a function whose setting is not kept.
std::optional<std::string> Terminal::statusStringPayload(std::string_view request) const {
    const Buffer& b = *buffer_;
    auto pair = [](int first, int second) { return std::to_string(first) + ";" + std::to_string(second); };
    if (request == "m") return pen().toSgr();
    if (request == "r") return pair(b.scrollTop + 1, b.scrollBottom + 1) + "r";
    if (request == "s") return pair(b.marginLeft + 1, b.marginRight + 1) + "s";
    if (request == " q") return std::to_string(static_cast<int>(cursorStyle) + 1) + " q";
    if (request == "\"q") return std::string(protectedPen ? "1" : "0") + "\"q";
    if (request == "\"p") return std::string("65;1\"p"); // the level this terminal offers, whatever was asked
    if (request == "*x") return std::string(rectangularAttributeChange ? "2" : "1") + "*x";
    if (request == "t") return std::to_string(std::max(rows_, 24)) + "t";
    if (request == "$|") return std::to_string(cols_) + "$|";
    if (request == "*|") return std::to_string(rows_) + "*|";
    if (request == "$}") return std::string("0$}");
    if (request == "$~") return std::string("0$~");
    return std::nullopt;
}

} // namespace vellum
