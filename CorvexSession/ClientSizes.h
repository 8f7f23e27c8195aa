#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "CorvexKit/SessionBackend.h"

namespace corvex {

// The size of a pane that several clients show at once: the largest that fits in each of
// them, so that none sees the program's output at a width it doesn't have. When a client
// stops showing the pane, the others get their room back.
class ClientSizes {
public:
    // The client shows the pane at that size; the size the pane should have now.
    Size show(uint64_t pane, uint64_t client, Size size);
    // The client stopped showing the pane; the size the others leave it, absent when no
    // one shows it any more (it then keeps the size it has).
    std::optional<Size> hide(uint64_t pane, uint64_t client);
    // The client went: each pane it showed that others still show, with its new size.
    std::vector<std::pair<uint64_t, Size>> leave(uint64_t client);

private:
    static Size fitting(const std::map<uint64_t, Size>& sizes);

    std::map<uint64_t, std::map<uint64_t, Size>> sizes_; // pane, then client
};

} // namespace corvex
