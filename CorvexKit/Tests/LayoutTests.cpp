#include <gtest/gtest.h>

#include "CorvexKit/Layout.h"

using namespace corvex;

namespace {

Layout hsplit(uint64_t id, double ratio, Layout a, Layout b) {
    return Layout::split(id, Axis::horizontal, ratio, std::move(a), std::move(b));
}

Layout vsplit(uint64_t id, double ratio, Layout a, Layout b) {
    return Layout::split(id, Axis::vertical, ratio, std::move(a), std::move(b));
}

// Split 1 (vertical): on top split 2 (horizontal) of panes 5 | 6, below pane 7.
Layout sample() { return vsplit(1, 0.5, hsplit(2, 0.5, Layout::leaf(5), Layout::leaf(6)), Layout::leaf(7)); }

} // namespace

TEST(LayoutFrames, FirstChildIsRoundedAndTheSecondTakesTheRest) {
    auto frames = hsplit(1, 0.5, Layout::leaf(2), Layout::leaf(3)).frames(Rect{0, 0, 1001, 40}, 1);
    EXPECT_EQ(frames.panes.at(2), (Rect{0, 0, 500, 40}));
    EXPECT_EQ(frames.panes.at(3), (Rect{501, 0, 500, 40}));
    ASSERT_EQ(frames.dividers.size(), 1u);
    EXPECT_EQ(frames.dividers[0], (DividerFrame{1, Axis::horizontal, Rect{500, 0, 1, 40}, Rect{0, 0, 1001, 40}}));

    // Half a point rounds away from zero; the second child still ends at the edge.
    frames = vsplit(1, 0.25, Layout::leaf(2), Layout::leaf(3)).frames(Rect{10, 20, 30, 11}, 1);
    EXPECT_EQ(frames.panes.at(2), (Rect{10, 20, 30, 3}));
    EXPECT_EQ(frames.panes.at(3), (Rect{10, 24, 30, 7}));
}

TEST(LayoutFrames, RatiosAreClampedWhateverTheDaemonSent) {
    auto zero = hsplit(1, 0.0, Layout::leaf(2), Layout::leaf(3)).frames(Rect{0, 0, 101, 10}, 1);
    EXPECT_EQ(zero.panes.at(2).width, 5);
    auto one = hsplit(1, 1.0, Layout::leaf(2), Layout::leaf(3)).frames(Rect{0, 0, 101, 10}, 1);
    EXPECT_EQ(one.panes.at(3).width, 5);
}

TEST(LayoutFrames, AContainerNarrowerThanTheDividerLeavesEmptyChildren) {
    auto frames = hsplit(1, 0.5, Layout::leaf(2), Layout::leaf(3)).frames(Rect{0, 0, 2, 10}, 4);
    EXPECT_EQ(frames.panes.at(2).width, 0);
    EXPECT_EQ(frames.panes.at(3).width, 0);
    EXPECT_GE(frames.panes.at(3).x, frames.panes.at(2).maxX());
}

TEST(LayoutFrames, NestedSplitsFillTheRectAndListDividersInPreOrder) {
    auto tree = vsplit(1, 0.5, hsplit(2, 0.5, Layout::leaf(5), Layout::leaf(6)),
                       hsplit(3, 0.3, Layout::leaf(7), Layout::leaf(8)));
    Rect bounds{0, 0, 201, 101};
    auto frames = tree.frames(bounds, 1);
    ASSERT_EQ(frames.dividers.size(), 3u);
    EXPECT_EQ(frames.dividers[1].split, 2u);
    EXPECT_EQ(frames.dividers[1].container, (Rect{0, 0, 201, 50}));
    EXPECT_EQ(frames.dividers[2].container, (Rect{0, 51, 201, 50}));
    double area = 0;
    for (const auto& [pane, rect] : frames.panes) area += rect.width * rect.height;
    for (const auto& divider : frames.dividers) area += divider.rect.width * divider.rect.height;
    // Dividers of nested splits lie inside their container, so the lower two overlap nothing.
    EXPECT_EQ(area, bounds.width * bounds.height);
    EXPECT_EQ(frames.panes.at(8).maxY(), 101);
}

TEST(LayoutRatio, PutsTheDividersCentreUnderThePointer) {
    Rect container{100, 50, 201, 401};
    EXPECT_DOUBLE_EQ(Layout::ratio(200.5, container, Axis::horizontal, 1), 0.5);
    EXPECT_DOUBLE_EQ(Layout::ratio(150.5, container, Axis::vertical, 1), 0.25);
    EXPECT_DOUBLE_EQ(Layout::ratio(0, container, Axis::horizontal, 1), 0.05);
    EXPECT_DOUBLE_EQ(Layout::ratio(10000, container, Axis::horizontal, 1), 0.95);
    EXPECT_DOUBLE_EQ(Layout::ratio(100, Rect{100, 0, 2, 10}, Axis::horizontal, 4), 0.5);
}

TEST(LayoutNeighbor, PrefersNearestThenWidestOverlapThenLowestIdentifier) {
    // A wide pane on top; below, 7 is narrower than 3.
    auto unequal = vsplit(1, 0.5, Layout::leaf(1), hsplit(2, 0.3, Layout::leaf(3), Layout::leaf(7)));
    auto frames = unequal.frames(Rect{0, 0, 101, 101}, 1);
    EXPECT_EQ(Layout::neighbor(1, Direction::down, frames), 7u);
    EXPECT_EQ(Layout::neighbor(3, Direction::up, frames), 1u);
    EXPECT_EQ(Layout::neighbor(7, Direction::left, frames), 3u);
    EXPECT_EQ(Layout::neighbor(1, Direction::up, frames), std::nullopt);
    EXPECT_EQ(Layout::neighbor(99, Direction::up, frames), std::nullopt);

    // Equal overlap: the lower identifier, wherever it stands.
    auto equal = vsplit(1, 0.5, Layout::leaf(1), hsplit(2, 0.5, Layout::leaf(9), Layout::leaf(4)));
    EXPECT_EQ(Layout::neighbor(1, Direction::down, equal.frames(Rect{0, 0, 101, 101}, 1)), 4u);

    // The nearer of two panes on the same side wins over a wider one further away.
    LayoutFrames manual;
    manual.panes = {{1, Rect{0, 0, 10, 100}}, {2, Rect{11, 0, 10, 10}}, {3, Rect{30, 0, 10, 100}}};
    EXPECT_EQ(Layout::neighbor(1, Direction::right, manual), 2u);
}

TEST(LayoutNeighbor, TouchingAtACornerIsNoNeighbour) {
    LayoutFrames frames;
    frames.panes = {{1, Rect{0, 0, 10, 10}}, {2, Rect{10, 10, 10, 10}}};
    EXPECT_EQ(Layout::neighbor(1, Direction::right, frames), std::nullopt);
    EXPECT_EQ(Layout::neighbor(2, Direction::left, frames), std::nullopt);
}

TEST(LayoutTree, NearestSplitFindsTheInnermostOfTheAskedAxis) {
    auto tree = sample();
    EXPECT_EQ(tree.nearestSplit(5, Axis::vertical), (NearestSplit{1, 0.5, true}));
    EXPECT_EQ(tree.nearestSplit(6, Axis::horizontal), (NearestSplit{2, 0.5, false}));
    EXPECT_EQ(tree.nearestSplit(7, Axis::vertical), (NearestSplit{1, 0.5, false}));
    EXPECT_EQ(tree.nearestSplit(7, Axis::horizontal), std::nullopt);
    EXPECT_EQ(Layout::leaf(5).nearestSplit(5, Axis::vertical), std::nullopt);
    // With the same axis nested, the inner split is the one to drag.
    auto nested = hsplit(1, 0.5, hsplit(2, 0.4, Layout::leaf(5), Layout::leaf(6)), Layout::leaf(7));
    EXPECT_EQ(nested.nearestSplit(6, Axis::horizontal), (NearestSplit{2, 0.4, false}));
}

TEST(LayoutTree, RemovingCollapsesTheParentSplit) {
    auto tree = sample();
    EXPECT_EQ(tree.panes(), (std::vector<uint64_t>{5, 6, 7}));
    EXPECT_EQ(tree.removing(5), vsplit(1, 0.5, Layout::leaf(6), Layout::leaf(7)));
    EXPECT_EQ(tree.removing(7), hsplit(2, 0.5, Layout::leaf(5), Layout::leaf(6)));
    EXPECT_EQ(tree.removing(99), tree);
    EXPECT_EQ(Layout::leaf(5).removing(5), std::nullopt);
    EXPECT_EQ(Layout::leaf(5).removing(6), Layout::leaf(5));
}

TEST(LayoutTree, SiblingReplacingAndSettingRatio) {
    auto tree = sample();
    EXPECT_EQ(tree.sibling(5), Layout::leaf(6));
    EXPECT_EQ(tree.sibling(7), hsplit(2, 0.5, Layout::leaf(5), Layout::leaf(6)));
    EXPECT_EQ(Layout::leaf(5).sibling(5), std::nullopt);

    auto grown = tree.replacing(6, [](const Layout& leaf) { return hsplit(9, 0.5, leaf, Layout::leaf(10)); });
    EXPECT_EQ(grown.panes(), (std::vector<uint64_t>{5, 6, 10, 7}));
    EXPECT_EQ(tree.replacing(99, [](const Layout&) { return Layout::leaf(1); }), tree);

    auto adjusted = tree.settingRatio(2, 0.3);
    ASSERT_TRUE(adjusted);
    EXPECT_EQ(*adjusted, vsplit(1, 0.5, hsplit(2, 0.3, Layout::leaf(5), Layout::leaf(6)), Layout::leaf(7)));
    EXPECT_EQ(tree.nearestSplit(5, Axis::horizontal)->ratio, 0.5); // the original is untouched
    EXPECT_EQ(tree.settingRatio(99, 0.3), std::nullopt);
    EXPECT_FALSE(tree == *adjusted);
}
