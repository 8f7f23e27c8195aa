#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vellum {

std::string base64Encode(std::span<const uint8_t> bytes);
// Standard alphabet with padding optional; whitespace is skipped. Nothing on any other byte.
std::optional<std::vector<uint8_t>> base64Decode(std::string_view text);

} // namespace vellum
