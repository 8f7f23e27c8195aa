#include "CorvexKit/Layout.h"

#include <algorithm>
#include <cmath>
#include <tuple>

namespace corvex {

namespace {

constexpr std::string_view axisNames[] = {"horizontal", "vertical"};
constexpr std::string_view directionNames[] = {"right", "down", "left", "up"};

void collectPanes(const Layout& layout, std::vector<uint64_t>& out) {
    if (layout.isLeaf()) {
        out.push_back(layout.leafPane());
        return;
    }
    collectPanes(layout.splitNode()->a, out);
    collectPanes(layout.splitNode()->b, out);
}

Layout withChildren(const SplitNode& node, Layout a, Layout b) {
    return Layout::split(node.id, node.axis, node.ratio, std::move(a), std::move(b));
}

std::optional<Layout> replacingFirst(const Layout& layout, uint64_t pane,
                                     const std::function<Layout(const Layout&)>& build) {
    if (layout.isLeaf()) {
        if (layout.leafPane() == pane) return build(layout);
        return std::nullopt;
    }
    const auto& node = *layout.splitNode();
    if (auto a = replacingFirst(node.a, pane, build)) return withChildren(node, std::move(*a), node.b);
    if (auto b = replacingFirst(node.b, pane, build)) return withChildren(node, node.a, std::move(*b));
    return std::nullopt;
}

void place(const Layout& layout, Rect rect, double divider, LayoutFrames& out) {
    if (layout.isLeaf()) {
        out.panes[layout.leafPane()] = rect;
        return;
    }
    const auto& node = *layout.splitNode();
    double r = Layout::clampRatio(node.ratio);
    Rect first = rect;
    Rect line = rect;
    Rect second = rect;
    if (node.axis == Axis::horizontal) {
        // Whole points for the first child; the second takes what is left. A container narrower
        // than the divider leaves both children empty rather than negative.
        first.width = std::max(0.0, std::round(r * (rect.width - divider)));
        line.x = first.maxX();
        line.width = divider;
        second.x = line.maxX();
        second.width = std::max(0.0, rect.maxX() - line.maxX());
    } else {
        first.height = std::max(0.0, std::round(r * (rect.height - divider)));
        line.y = first.maxY();
        line.height = divider;
        second.y = line.maxY();
        second.height = std::max(0.0, rect.maxY() - line.maxY());
    }
    out.dividers.push_back(DividerFrame{node.id, node.axis, line, rect});
    place(node.a, first, divider, out);
    place(node.b, second, divider, out);
}

} // namespace

Axis axisOf(Direction direction) {
    return direction == Direction::right || direction == Direction::left ? Axis::horizontal : Axis::vertical;
}

bool newPaneIsSecond(Direction direction) { return direction == Direction::right || direction == Direction::down; }

std::string_view wireName(Axis axis) { return axisNames[static_cast<size_t>(axis)]; }

std::string_view wireName(Direction direction) { return directionNames[static_cast<size_t>(direction)]; }

std::optional<Axis> parseAxis(std::string_view text) {
    for (size_t i = 0; i < std::size(axisNames); ++i) {
        if (axisNames[i] == text) return static_cast<Axis>(i);
    }
    return std::nullopt;
}

std::optional<Direction> parseDirection(std::string_view text) {
    for (size_t i = 0; i < std::size(directionNames); ++i) {
        if (directionNames[i] == text) return static_cast<Direction>(i);
    }
    return std::nullopt;
}

double Layout::clampRatio(double ratio) {
    if (std::isnan(ratio)) return 0.5;
    return std::clamp(ratio, minRatio, maxRatio);
}

Layout Layout::leaf(uint64_t pane) {
    Layout layout;
    layout.pane_ = pane;
    return layout;
}

Layout Layout::split(uint64_t id, Axis axis, double ratio, Layout a, Layout b) {
    Layout layout;
    layout.node_ = std::make_shared<const SplitNode>(SplitNode{id, axis, ratio, std::move(a), std::move(b)});
    return layout;
}

std::vector<uint64_t> Layout::panes() const {
    std::vector<uint64_t> out;
    collectPanes(*this, out);
    return out;
}

std::optional<uint64_t> Layout::firstPane() const {
    const Layout* node = this;
    while (!node->isLeaf()) node = &node->splitNode()->a;
    return node->leafPane();
}

bool Layout::contains(uint64_t pane) const {
    if (isLeaf()) return pane_ == pane;
    return node_->a.contains(pane) || node_->b.contains(pane);
}

Layout Layout::replacing(uint64_t pane, const std::function<Layout(const Layout&)>& build) const {
    return replacingFirst(*this, pane, build).value_or(*this);
}

std::optional<Layout> Layout::removing(uint64_t pane) const {
    if (isLeaf()) {
        if (pane_ == pane) return std::nullopt;
        return *this;
    }
    if (node_->a.contains(pane)) {
        auto a = node_->a.removing(pane);
        return a ? withChildren(*node_, std::move(*a), node_->b) : node_->b;
    }
    if (node_->b.contains(pane)) {
        auto b = node_->b.removing(pane);
        return b ? withChildren(*node_, node_->a, std::move(*b)) : node_->a;
    }
    return *this;
}

std::optional<Layout> Layout::sibling(uint64_t pane) const {
    if (isLeaf()) return std::nullopt;
    if (node_->a.isLeaf() && node_->a.leafPane() == pane) return node_->b;
    if (node_->b.isLeaf() && node_->b.leafPane() == pane) return node_->a;
    if (auto found = node_->a.sibling(pane)) return found;
    return node_->b.sibling(pane);
}

std::optional<Layout> Layout::settingRatio(uint64_t split, double ratio) const {
    if (isLeaf()) return std::nullopt;
    if (node_->id == split) return Layout::split(node_->id, node_->axis, ratio, node_->a, node_->b);
    if (auto a = node_->a.settingRatio(split, ratio)) return withChildren(*node_, std::move(*a), node_->b);
    if (auto b = node_->b.settingRatio(split, ratio)) return withChildren(*node_, node_->a, std::move(*b));
    return std::nullopt;
}

std::optional<NearestSplit> Layout::nearestSplit(uint64_t pane, Axis axis) const {
    if (isLeaf()) return std::nullopt;
    bool inA = node_->a.contains(pane);
    if (!inA && !node_->b.contains(pane)) return std::nullopt;
    if (auto inner = (inA ? node_->a : node_->b).nearestSplit(pane, axis)) return inner;
    if (node_->axis != axis) return std::nullopt;
    return NearestSplit{node_->id, node_->ratio, inA};
}

LayoutFrames Layout::frames(Rect rect, double divider) const {
    LayoutFrames out;
    place(*this, rect, divider, out);
    return out;
}

double Layout::ratio(double position, Rect container, Axis axis, double divider) {
    bool vertical = axis == Axis::vertical;
    double span = (vertical ? container.height : container.width) - divider;
    if (!(span > 0)) return 0.5;
    double containerMin = vertical ? container.minY() : container.minX();
    return clampRatio((position - containerMin - divider * 0.5) / span);
}

std::optional<uint64_t> Layout::neighbor(uint64_t pane, Direction direction, const LayoutFrames& frames) {
    auto own = frames.panes.find(pane);
    if (own == frames.panes.end()) return std::nullopt;
    const Rect& p = own->second;

    struct Candidate {
        double gap;
        double overlap;
        uint64_t id;
    };
    std::optional<Candidate> best;
    for (const auto& [id, c] : frames.panes) {
        if (id == pane) continue;
        double gap = 0;
        double overlap = 0;
        switch (direction) {
        case Direction::right:
            if (!(p.maxX() - 1 <= c.minX())) continue;
            gap = c.minX() - p.maxX();
            break;
        case Direction::down:
            if (!(p.maxY() - 1 <= c.minY())) continue;
            gap = c.minY() - p.maxY();
            break;
        case Direction::left:
            if (!(c.maxX() <= p.minX() + 1)) continue;
            gap = p.minX() - c.maxX();
            break;
        case Direction::up:
            if (!(c.maxY() <= p.minY() + 1)) continue;
            gap = p.minY() - c.maxY();
            break;
        }
        if (axisOf(direction) == Axis::horizontal) {
            overlap = std::min(p.maxY(), c.maxY()) - std::max(p.minY(), c.minY());
        } else {
            overlap = std::min(p.maxX(), c.maxX()) - std::max(p.minX(), c.minX());
        }
        if (!(overlap > 0)) continue;
        Candidate candidate{gap, overlap, id};
        // Nearest first, then the widest shared edge, then the lowest identifier.
        if (!best || std::tuple(candidate.gap, -candidate.overlap, candidate.id) <
                         std::tuple(best->gap, -best->overlap, best->id)) {
            best = candidate;
        }
    }
    if (!best) return std::nullopt;
    return best->id;
}

bool Layout::operator==(const Layout& other) const {
    if (isLeaf() != other.isLeaf()) return false;
    if (isLeaf()) return pane_ == other.pane_;
    return node_ == other.node_ || *node_ == *other.node_;
}

} // namespace corvex
