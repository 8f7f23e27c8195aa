#include "CorvexSession/ClientSizes.h"

#include <algorithm>

namespace corvex {

Size ClientSizes::fitting(const std::map<uint64_t, Size>& sizes) {
    Size out = sizes.begin()->second;
    for (const auto& [client, size] : sizes) {
        out.cols = std::min(out.cols, size.cols);
        out.rows = std::min(out.rows, size.rows);
    }
    return out;
}

Size ClientSizes::show(uint64_t pane, uint64_t client, Size size) {
    auto& clients = sizes_[pane];
    clients[client] = size;
    return fitting(clients);
}

std::optional<Size> ClientSizes::hide(uint64_t pane, uint64_t client) {
    auto found = sizes_.find(pane);
    if (found == sizes_.end() || !found->second.erase(client)) return std::nullopt;
    if (found->second.empty()) {
        sizes_.erase(found);
        return std::nullopt;
    }
    return fitting(found->second);
}

std::vector<std::pair<uint64_t, Size>> ClientSizes::leave(uint64_t client) {
    std::vector<uint64_t> panes;
    for (const auto& [pane, clients] : sizes_) {
        if (clients.count(client)) panes.push_back(pane);
    }
    std::vector<std::pair<uint64_t, Size>> out;
    for (uint64_t pane : panes) {
        if (auto size = hide(pane, client)) out.emplace_back(pane, *size);
    }
    return out;
}

} // namespace corvex
