#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace corvex {

// `horizontal`: the two children lie side by side; `vertical`: one above the other.
enum class Axis { horizontal, vertical };

enum class Direction { right, down, left, up };

Axis axisOf(Direction direction);
// Whether a pane placed toward the direction becomes the split's second child.
bool newPaneIsSecond(Direction direction);

std::string_view wireName(Axis axis);
std::string_view wireName(Direction direction);
std::optional<Axis> parseAxis(std::string_view text);
std::optional<Direction> parseDirection(std::string_view text);

// A rectangle in points; y grows downwards.
struct Rect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;

    double minX() const { return x; }
    double minY() const { return y; }
    double maxX() const { return x + width; }
    double maxY() const { return y + height; }

    bool operator==(const Rect&) const = default;
};

struct DividerFrame {
    uint64_t split = 0;
    Axis axis = Axis::horizontal;
    Rect rect;
    Rect container;

    bool operator==(const DividerFrame&) const = default;
};

struct LayoutFrames {
    std::map<uint64_t, Rect> panes;
    std::vector<DividerFrame> dividers; // in pre-order of the tree

    bool operator==(const LayoutFrames&) const = default;
};

struct NearestSplit {
    uint64_t id = 0;
    double ratio = 0.5;
    bool paneInA = true;

    bool operator==(const NearestSplit&) const = default;
};

struct SplitNode;

// The binary tree of a tab's split panes: a leaf names one pane, a split divides its area
// between `a` and `b`. Nodes are immutable and shared between copies, so copying is cheap and
// a copy never sees a change made to another.
class Layout {
public:
    static constexpr double minRatio = 0.05;
    static constexpr double maxRatio = 0.95;
    static double clampRatio(double ratio);

    // A leaf of pane 0; real trees are built with leaf() and split().
    Layout() = default;
    static Layout leaf(uint64_t pane);
    static Layout split(uint64_t id, Axis axis, double ratio, Layout a, Layout b);

    bool isLeaf() const { return node_ == nullptr; }
    // The pane of a leaf; 0 for a split.
    uint64_t leafPane() const { return node_ ? 0 : pane_; }
    // The node of a split; null for a leaf.
    const SplitNode* splitNode() const { return node_.get(); }

    // All of `a`, then all of `b`.
    std::vector<uint64_t> panes() const;
    std::optional<uint64_t> firstPane() const;
    bool contains(uint64_t pane) const;

    // The tree with the first leaf of `pane` replaced by what `build` makes of that leaf; an
    // equal tree when there is no such leaf.
    Layout replacing(uint64_t pane, const std::function<Layout(const Layout& leaf)>& build) const;
    // The tree without the leaf; a split that loses a child gives way to the other child.
    // Absent when the tree is only that leaf.
    std::optional<Layout> removing(uint64_t pane) const;
    // The other child of the split directly above the pane.
    std::optional<Layout> sibling(uint64_t pane) const;
    // Absent when the tree holds no split of that identifier.
    std::optional<Layout> settingRatio(uint64_t split, double ratio) const;
    // The innermost split of that axis around the pane.
    std::optional<NearestSplit> nearestSplit(uint64_t pane, Axis axis) const;

    LayoutFrames frames(Rect rect, double divider) const;
    // The ratio that puts the divider's centre at the point.
    static double ratio(double position, Rect container, Axis axis, double divider);
    static std::optional<uint64_t> neighbor(uint64_t pane, Direction direction, const LayoutFrames& frames);

    bool operator==(const Layout& other) const;

private:
    uint64_t pane_ = 0;
    std::shared_ptr<const SplitNode> node_;
};

struct SplitNode {
    uint64_t id = 0;
    Axis axis = Axis::horizontal;
    double ratio = 0.5; // share of `a`, as the daemon sent it
    Layout a;
    Layout b;

    bool operator==(const SplitNode&) const = default;
};

} // namespace corvex
