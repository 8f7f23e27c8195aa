#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vellum {

// Capabilities of the terminfo entry we advertise, keyed by the upper-case hexadecimal
// capability name, each with its finished reply body ("NAME" or "NAME=HEXVALUE"). Sorted by key.
const std::vector<std::pair<std::string_view, std::string_view>>& xtgettcapReplyTable();

// Upper-cases a hexadecimal capability name; odd lengths and non-hex characters give nothing.
std::optional<std::string> normalizedXtgettcapKey(std::string_view key);

// The reply body for a normalised key, or nothing when the capability is unknown.
std::optional<std::string_view> xtgettcapReply(std::string_view normalizedKey);

} // namespace vellum
