#pragma once

#include <algorithm>
#include <span>
#include <string>
#include <string_view>

#include "Vellum/CsiParameters.h"

// Reading CSI parameters the way the handlers of the terminal do.
namespace vellum::sequence {

// Absent or 0 reads as `fallback`.
inline int param(CsiParameters pars, int i, int fallback) {
    if (i >= pars.size() || pars[i] == 0) return fallback;
    return static_cast<int>(pars[i]);
}

inline int rawParam(CsiParameters pars, int i) { return i < pars.size() ? static_cast<int>(pars[i]) : 0; }

inline bool collectIs(std::span<const uint8_t> collect, std::string_view text) {
    return collect.size() == text.size() && std::equal(collect.begin(), collect.end(), text.begin());
}

inline std::string describe(CsiParameters pars) {
    std::string out = "[";
    for (int i = 0; i < pars.size(); ++i) {
        if (i > 0) out += ", ";
        out += std::to_string(pars[i]);
    }
    return out + "]";
}

inline std::string describe(std::span<const uint8_t> collect) {
    return std::string(collect.begin(), collect.end());
}

} // namespace vellum::sequence
