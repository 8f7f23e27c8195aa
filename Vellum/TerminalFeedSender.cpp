#include "Vellum/TerminalFeedSender.h"

namespace vellum {

void TerminalFeedSender::configure(FeedBytes feedBytes, FeedText feedText) {
    feedBytes_.set(std::move(feedBytes));
    feedText_.set(std::move(feedText));
}

void TerminalFeedSender::clear() { configure(nullptr, nullptr); }

bool TerminalFeedSender::feed(std::span<const unsigned char> bytes) const {
    auto function = feedBytes_.copy();
    if (!function) return false;
    function(bytes);
    return true;
}

bool TerminalFeedSender::feed(std::string_view text) const {
    auto function = feedText_.copy();
    if (!function) return false;
    function(text);
    return true;
}

} // namespace vellum
