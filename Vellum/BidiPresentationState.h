#pragma once

#include <cstdint>

namespace vellum {

enum class BidiSupportMode : uint8_t { implicit, explicitOnly, disabled };
enum class BidiDirection : uint8_t { leftToRight, rightToLeft };

// Per-row settings for presenting bidirectional text, four bytes.
struct BidiPresentationState {
    BidiSupportMode supportMode = BidiSupportMode::implicit;
    bool autodetectDirection = true;
    BidiDirection fallbackDirection = BidiDirection::leftToRight;
    bool boxMirroring = false;

    constexpr bool operator==(const BidiPresentationState&) const = default;
};

static_assert(sizeof(BidiPresentationState) == 4);

} // namespace vellum
