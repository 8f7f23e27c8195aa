#include <gtest/gtest.h>

#include <set>

#include "Support/CapturedDiagnostics.h"
#include "Vellum/CircularBufferLineList.h"

using namespace vellum;
using vellum::testing::CapturedDiagnostics;

namespace {

struct Owner : BufferLineOwner {
    explicit Owner(int cols) {
        _cols = cols;
        cellArena = std::make_shared<CellArena>();
        selfRef = std::make_shared<BufferRef>();
    }
};

std::shared_ptr<BufferLine> row(char32_t letter, int cols = 4) {
    auto line = std::make_shared<BufferLine>(cols);  // an arena of its own until pushed
    line->set(0, CharData(Attribute::empty, int32_t(letter), 1));
    return line;
}

// The first letter of every row, in logical order.
std::string letters(CircularBufferLineList& ring) {
    std::string out;
    for (int i = 0; i < ring.count(); ++i) {
        int32_t code = ring[i][0].code;
        out.push_back(code ? char(code) : '.');
    }
    return out;
}

CircularBufferLineList filled(Owner& owner, int maxLength, std::string_view text) {
    CircularBufferLineList ring(maxLength, &owner);
    for (char c : text) ring.push(row(char32_t(c), owner._cols));
    return ring;
}

} // namespace

TEST(CircularBufferLineList, RowsAreMadeAtFirstTouchInTheOwnersArena) {
    Owner owner(7);
    owner.defaultBidiState.boxMirroring = true;
    CircularBufferLineList ring(1000000, &owner);
    ring.setCount(3);
    EXPECT_LE(ring.array.size(), 16u);  // a large limit allocates nothing up front
    EXPECT_EQ(ring.array[1], nullptr);
    BufferLine& line = ring[1];
    EXPECT_EQ(line.count(), 7);
    EXPECT_EQ(line.sharedArena(), owner.cellArena);
    EXPECT_EQ(line.owningBufferRef, owner.selfRef);
    EXPECT_TRUE(line.bidiState().boxMirroring);
    EXPECT_EQ(&ring[1], &line);  // stored, not made again

    // Pushed and set rows join the owner's arena, re-encoding their cells.
    auto pushed = row('q');
    ring.push(pushed);
    EXPECT_EQ(pushed->sharedArena(), owner.cellArena);
    EXPECT_EQ(ring[3][0].code, 'q');
    ring.set(0, row('s'));
    EXPECT_EQ(ring.line(0)->owningBufferRef, owner.selfRef);

    CapturedDiagnostics diagnostics;
    EXPECT_EQ(ring[9].count(), 7);  // a caller's bad index gets a detached row, not a crash
    EXPECT_EQ(diagnostics.lines.size(), 1u);
}

TEST(CircularBufferLineList, PushWrapsAtTheLimitAndCountsImages) {
    Owner owner(4);
    CircularBufferLineList ring = filled(owner, 3, "abc");
    auto pictured = row('d');
    pictured->attach(std::make_shared<TerminalImage>());
    ring.push(pictured);
    EXPECT_EQ(letters(ring), "bcd");
    EXPECT_EQ(owner._linesWithImagesCount, 1);
    ring.push(row('e'));
    ring.push(row('f'));
    ring.push(row('g'));  // d leaves with its image
    EXPECT_EQ(letters(ring), "efg");
    EXPECT_EQ(owner._linesWithImagesCount, 0);

    pictured = row('h');
    pictured->attach(std::make_shared<TerminalImage>());
    ring.push(pictured);
    ring.reset(3);
    EXPECT_EQ(owner._linesWithImagesCount, 0);
    EXPECT_EQ(ring.count(), 0);
}

TEST(CircularBufferLineList, RecyclingAFullRingReusesRowObjects) {
    Owner owner(4);
    CircularBufferLineList ring = filled(owner, 4, "abcd");
    std::set<BufferLine*> objects;
    for (int i = 0; i < 4; ++i) objects.insert(ring.line(i).get());
    for (int n = 0; n < 1000; ++n) {
        ring.recycle(PackedCell{}, n % 2 == 1, {});
        ring[3].set(0, CharData(Attribute::empty, 'A' + n % 26, 1));
    }
    std::set<BufferLine*> after;
    for (int i = 0; i < 4; ++i) after.insert(ring.line(i).get());
    EXPECT_EQ(after, objects);
    EXPECT_EQ(letters(ring), "IJKL");
    EXPECT_EQ(ring.line(3)->recycleGeneration, 250u);
    EXPECT_TRUE(ring[3].isWrapped());

    CapturedDiagnostics diagnostics;
    CircularBufferLineList partial = filled(owner, 4, "ab");
    partial.recycle(PackedCell{}, false, {});
    EXPECT_EQ(letters(partial), "ab");
    EXPECT_EQ(diagnostics.lines, std::vector<std::string>{"Info: Assertion on recycle: count=2 maxLength=4"});
}

TEST(CircularBufferLineList, ShiftElementsChecksItsArgumentsInOrder) {
    Owner owner(4);
    CircularBufferLineList ring = filled(owner, 10, "abcde");
    CapturedDiagnostics diagnostics;
    EXPECT_FALSE(ring.shiftElements(-1, -1, 1));
    EXPECT_FALSE(ring.shiftElements(-1, 1, 1));
    EXPECT_FALSE(ring.shiftElements(5, 1, 1));
    EXPECT_FALSE(ring.shiftElements(1, 2, -1));  // index 0 exists, yet start+offset must be positive
    EXPECT_EQ(diagnostics.lines, (std::vector<std::string>{
                                     "Info: Assertion at start=-1 count=-1 offset=1: count < 0",
                                     "Info: Assertion at start=-1 count=1 offset=1: start < 0",
                                     "Info: Assertion at start=5 count=1 offset=1: start >= self.count",
                                     "Info: Assertion at start=1 count=2 offset=-1: start+offset <= 0",
                                 }));
    EXPECT_TRUE(ring.shiftElements(99, 0, -3));
    EXPECT_EQ(letters(ring), "abcde");

    EXPECT_TRUE(ring.shiftElements(2, 3, -1));  // cde up one; the vacated row is new and blank
    EXPECT_EQ(letters(ring), "acde.");
    EXPECT_TRUE(ring.shiftElements(1, 2, 2));  // cd down two, growing the ring
    EXPECT_EQ(letters(ring), "a..cd");
    EXPECT_TRUE(ring.shiftElements(3, 2, 4));
    EXPECT_EQ(letters(ring), "a......cd");
    EXPECT_EQ(diagnostics.lines.size(), 4u);
}

TEST(CircularBufferLineList, ShiftingPastTheLimitDropsTheFront) {
    Owner owner(4);
    CircularBufferLineList ring = filled(owner, 5, "abcde");
    EXPECT_TRUE(ring.shiftElements(1, 4, 2));
    EXPECT_EQ(letters(ring), ".bcde");  // a and a vacated row fell off the front
    EXPECT_EQ(ring.count(), 5);

    CircularBufferLineList grown = filled(owner, 6, "abcd");
    EXPECT_TRUE(grown.shiftElements(2, 2, 3));  // ends at 7: one over the limit
    EXPECT_EQ(letters(grown), "b...cd");
}

TEST(CircularBufferLineList, ShiftUpAndRecycleMovesRowsWithoutCopyingCells) {
    Owner owner(4);
    CircularBufferLineList ring = filled(owner, 8, "abcdef");
    BufferLine* top = ring.line(1).get();
    EXPECT_TRUE(ring.shiftUpAndRecycle(1, 4, PackedCell{}, true, {}));
    EXPECT_EQ(letters(ring), "acde.f");
    EXPECT_EQ(ring.line(4).get(), top);
    EXPECT_TRUE(top->isWrapped());
    EXPECT_EQ(top->recycleGeneration, 1u);

    CapturedDiagnostics diagnostics;
    EXPECT_FALSE(ring.shiftUpAndRecycle(-1, 2, PackedCell{}, false, {}));
    EXPECT_FALSE(ring.shiftUpAndRecycle(0, 6, PackedCell{}, false, {}));
    EXPECT_FALSE(ring.shiftUpAndRecycle(3, 2, PackedCell{}, false, {}));
    EXPECT_EQ(diagnostics.lines, (std::vector<std::string>{
                                     "Info: Assertion at top=-1 bottom=2: top < 0",
                                     "Info: Assertion at top=0 bottom=6: bottom >= self.count",
                                     "Info: Assertion at top=3 bottom=2: top > bottom",
                                 }));
    EXPECT_EQ(letters(ring), "acde.f");
}

TEST(CircularBufferLineList, SpliceReportsTheRowsItWrote) {
    Owner owner(4);
    CircularBufferLineList ring = filled(owner, 8, "abcdef");
    std::vector<int> changed;
    auto record = [&](int index) { changed.push_back(index); };
    std::vector<std::shared_ptr<BufferLine>> items{row('X'), row('Y'), row('Z')};
    ring.splice(1, 2, items, record);
    EXPECT_EQ(letters(ring), "aXYZdef");
    EXPECT_EQ(changed, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(items[0]->sharedArena(), owner.cellArena);

    // Over the limit the front drops and the reported indexes follow.
    changed.clear();
    std::vector<std::shared_ptr<BufferLine>> more{row('1'), row('2'), row('3')};
    ring.splice(1, 0, more, record);
    EXPECT_EQ(letters(ring), "23XYZdef");
    EXPECT_EQ(changed, (std::vector<int>{0, 1}));

    ring.splice(6, 5, {}, record);
    EXPECT_EQ(letters(ring), "23XYZd");
}

TEST(CircularBufferLineList, CountAndTrimming) {
    Owner owner(4);
    CircularBufferLineList ring = filled(owner, 6, "abcdef");
    ring.trimStart(2);
    EXPECT_EQ(letters(ring), "cdef");
    ring.push(row('g'));
    ring.push(row('h'));
    ring.push(row('i'));  // wraps over the trimmed slots
    EXPECT_EQ(letters(ring), "defghi");
    ring.setCount(4);
    ring.setCount(6);
    EXPECT_EQ(letters(ring), "defg..");

    CapturedDiagnostics diagnostics;
    ring.setCount(9);
    EXPECT_EQ(ring.count(), 6);
    EXPECT_EQ(diagnostics.lines.size(), 1u);

    ring.setMaxLength(3);
    EXPECT_EQ(letters(ring), "g..");
    ring.setMaxLength(5);
    ring.push(row('j'));
    ring.push(row('k'));
    ring.push(row('l'));
    EXPECT_EQ(letters(ring), "..jkl");
}

TEST(CircularList, IntegersWithAFactoryForEmptySlots) {
    CircularList<int> list(4, [](int index) { return -index; });
    list.setCount(2);
    EXPECT_EQ(list[1], -1);
    list.push(7);
    list.push(8);
    list.push(9);
    EXPECT_EQ(list[0], -1);
    EXPECT_EQ(list[3], 9);
    std::vector<int> changed;
    std::vector<int> items{5, 6};
    list.splice(0, 1, items, [&](int index) { changed.push_back(index); });
    EXPECT_EQ(changed, (std::vector<int>{0}));  // 5 went in and straight off the front again
    std::vector<int> now;
    for (int i = 0; i < list.count(); ++i) now.push_back(list[i]);
    EXPECT_EQ(now, (std::vector<int>{6, 7, 8, 9}));
    list.reset(2);
    EXPECT_EQ(list.count(), 0);
    EXPECT_EQ(list.maxLength, 2);
}
