#include "Vellum/TerminalInputSender.h"

namespace vellum {

void TerminalInputSender::configure(Functions functions) { functions_.set(std::move(functions)); }

void TerminalInputSender::clear() { functions_.set({}); }

void TerminalInputSender::registerInput() const {
    auto function = functions_.withLock([](const Functions& functions) { return functions.registerInput; });
    if (function) function();
}

void TerminalInputSender::notifyUI() const {
    auto function = functions_.withLock([](const Functions& functions) { return functions.notifyUI; });
    if (function) function();
}

bool TerminalInputSender::deliver(std::span<const unsigned char> bytes) const {
    auto function = functions_.withLock([](const Functions& functions) { return functions.deliver; });
    if (!function) return false;
    function(bytes);
    return true;
}

bool TerminalInputSender::deliverOnMain(std::vector<unsigned char> bytes) const {
    auto function = functions_.withLock([](const Functions& functions) { return functions.deliverOnMain; });
    if (!function) return false;
    function(std::move(bytes));
    return true;
}

} // namespace vellum
