#include "Vellum/Base64.h"

#include <array>

namespace vellum {

namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int8_t, 256> decodeTable() {
    std::array<int8_t, 256> table{};
    for (auto& entry : table) entry = -1;
    for (int i = 0; i < 64; ++i) table[static_cast<uint8_t>(alphabet[i])] = static_cast<int8_t>(i);
    return table;
}

} // namespace

std::string base64Encode(std::span<const uint8_t> bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        uint32_t n = uint32_t(bytes[i]) << 16 | uint32_t(bytes[i + 1]) << 8 | bytes[i + 2];
        out += {alphabet[n >> 18], alphabet[(n >> 12) & 63], alphabet[(n >> 6) & 63], alphabet[n & 63]};
    }
    if (i + 1 == bytes.size()) {
        uint32_t n = uint32_t(bytes[i]) << 16;
        out += {alphabet[n >> 18], alphabet[(n >> 12) & 63], '=', '='};
    } else if (i + 2 == bytes.size()) {
        uint32_t n = uint32_t(bytes[i]) << 16 | uint32_t(bytes[i + 1]) << 8;
        out += {alphabet[n >> 18], alphabet[(n >> 12) & 63], alphabet[(n >> 6) & 63], '='};
    }
    return out;
}

std::optional<std::vector<uint8_t>> base64Decode(std::string_view text) {
    static constexpr auto table = decodeTable();
    std::vector<uint8_t> out;
    out.reserve(text.size() / 4 * 3);
    uint32_t accumulator = 0;
    int bits = 0;
    bool padding = false;
    for (char c : text) {
        auto byte = static_cast<uint8_t>(c);
        if (byte == ' ' || byte == '\n' || byte == '\r' || byte == '\t') continue;
        if (byte == '=') {
            padding = true;
            continue;
        }
        int value = table[byte];
        if (value < 0 || padding) return std::nullopt;
        accumulator = accumulator << 6 | static_cast<uint32_t>(value);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<uint8_t>(accumulator >> bits));
        }
    }
    // A lone sextet cannot make a byte.
    if (bits >= 6) return std::nullopt;
    return out;
}

} // namespace vellum
