#pragma once

#include <cstdint>
#include <span>

#include "Vellum/CsiParameters.h"

namespace vellum {

// Consumer of the payload of one DCS: hook at the start, put for each slice of payload (as few
// and as large as the input allows), unhook at the end. A DCS cancelled by SUB or a C1 control
// is never unhooked; its handler is simply dropped.
class DcsHandler {
public:
    virtual ~DcsHandler() = default;
    virtual void hook(std::span<const uint8_t> collect, CsiParameters parameters, uint8_t flag) = 0;
    virtual void put(std::span<const uint8_t> data) = 0;
    virtual void unhook() = 0;
};

} // namespace vellum
