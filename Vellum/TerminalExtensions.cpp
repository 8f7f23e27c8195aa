// Seams for the extensions that are not built yet: Kitty graphics (APC G), sixel (DCS q),
// the Kitty keyboard protocol (CSI > u, < u, ? u, = u), the Kitty clipboard protocol (OSC 5522)
// and bidirectional presentation (SPD, SCP). Each takes its sequences whole, so that a
// program using them never leaves stray text on the screen, and none of them answers, so that
// programs that probe for them find them absent and fall back.
#include "Vellum/Terminal.h"
#include "Vellum/TerminalParameters.h"

namespace vellum {

using sequence::collectIs;
using sequence::rawParam;

namespace {

constexpr size_t keyboardFlagStackLimit = 16;

} // namespace

// The image data of a sixel DCS; dropped until images are drawn.
class SixelDcsHandler final : public DcsHandler {
public:
    void hook(std::span<const uint8_t>, CsiParameters, uint8_t) override {}
    void put(std::span<const uint8_t>) override {}
    void unhook() override {}
};

std::unique_ptr<DcsHandler> makeSixelDcsHandler() { return std::make_unique<SixelDcsHandler>(); }

bool Terminal::handleKittyKeyboardProtocol(CsiParameters pars, std::span<const uint8_t> collect) {
    auto& stack = keyboardFlagStacks[isAlternateBuffer() ? 1 : 0];
    if (collectIs(collect, ">")) {
        if (stack.size() >= keyboardFlagStackLimit) stack.erase(stack.begin());
        stack.push_back(static_cast<uint32_t>(rawParam(pars, 0)));
        return true;
    }
    if (collectIs(collect, "<")) {
        size_t count = static_cast<size_t>(std::max(rawParam(pars, 0), 1));
        stack.resize(stack.size() - std::min(count, stack.size()));
        return true;
    }
    if (collectIs(collect, "=")) {
        auto flags = static_cast<uint32_t>(rawParam(pars, 0));
        int how = rawParam(pars, 1);
        if (stack.empty()) stack.push_back(0);
        if (how == 2) stack.back() |= flags;
        else if (how == 3) stack.back() &= ~flags;
        else stack.back() = flags;
        return true;
    }
    return collectIs(collect, "?");
}

uint32_t Terminal::keyboardEnhancementFlags() const {
    const auto& stack = keyboardFlagStacks[isAlternateBuffer() ? 1 : 0];
    return stack.empty() ? 0 : stack.back();
}

void Terminal::handleKittyGraphics(std::span<const uint8_t>) {}

void Terminal::handleKittyClipboard(std::string_view, std::string_view) {}

void Terminal::dispatchApc(uint8_t command, std::span<const uint8_t> content) {
    if (command == 'G') handleKittyGraphics(content);
    else log("Vellum: Unknown APC code: " + std::string(1, static_cast<char>(command)));
}

} // namespace vellum
