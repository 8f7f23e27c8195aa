// Costs at the bottom of the terminal engine: interning renditions, storing cells in rows,
// and scrolling a full scrollback by recycling rows.
#include <benchmark/benchmark.h>

#include "Vellum/BufferLine.h"
#include "Vellum/CircularBufferLineList.h"

using namespace vellum;

namespace {

constexpr int cols = 120;

Attribute palette(int i) {
    Attribute a;
    a.fg = Attribute::Color::ansi256(uint8_t(i));
    if (i & 1) a.style = CharacterStyle::bold;
    return a;
}

} // namespace

// The common case: a rendition already seen, found in the direct-mapped cache.
static void BM_InternKnownAttribute(benchmark::State& state) {
    CellArena arena;
    Attribute attributes[16];
    for (int i = 0; i < 16; ++i) arena.intern(attributes[i] = palette(i));
    int i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(arena.intern(attributes[i++ & 15]));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_InternKnownAttribute);

// Storing through the convenient CharData form: pack, then one word per cell.
static void BM_SetCharDataAcrossARow(benchmark::State& state) {
    BufferLine line(cols);
    CharData data(palette(3), 'x', 1);
    for (auto _ : state) {
        for (int col = 0; col < cols; ++col) line.set(col, data);
        benchmark::DoNotOptimize(line.storage.data());
    }
    state.SetItemsProcessed(state.iterations() * cols);
}
BENCHMARK(BM_SetCharDataAcrossARow);

// The print path's form: one precomputed word with each byte ORed in.
static void BM_WriteAsciiRunAsWords(benchmark::State& state) {
    BufferLine line(cols);
    auto style = line.arena().intern(palette(3)).value_or(0);
    PackedCell base = PackedCell::make(0, 0, style, 0, false, 0, 0);
    std::string text(cols, 'a');
    for (int i = 0; i < cols; ++i) text[size_t(i)] = char('!' + i % 90);
    for (auto _ : state) {
        PackedCell* cells = line.storage.data();
        for (int col = 0; col < cols; ++col) cells[col] = PackedCell{base.raw | uint64_t(uint8_t(text[size_t(col)])) << PackedCell::valueShift};
        line.usedLength = cols;
        ++line._generation;
        benchmark::DoNotOptimize(cells);
    }
    state.SetBytesProcessed(state.iterations() * cols);
}
BENCHMARK(BM_WriteAsciiRunAsWords);

// A line feed at the bottom of a full scrollback: the first row comes back as the last.
static void BM_RecycleFullRing(benchmark::State& state) {
    BufferLineOwner owner;
    owner._cols = cols;
    owner.cellArena = std::make_shared<CellArena>();
    owner.selfRef = std::make_shared<BufferRef>();
    int rows = int(state.range(0));
    CircularBufferLineList ring(rows, &owner);
    CharData letter(Attribute::empty, 'x', 1);
    for (int i = 0; i < rows; ++i) {
        auto line = std::make_shared<BufferLine>(cols, letter, false, BidiPresentationState{}, owner.cellArena);
        ring.push(line);
    }
    for (auto _ : state) {
        ring.recycle(PackedCell{}, false, {});
        BufferLine& bottom = ring[rows - 1];
        bottom.writableCells(1)[0] = PackedCell::make(0, 'y', 0, 0, false, 0, 0);
        bottom.usedLength = 1;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RecycleFullRing)->Arg(40)->Arg(10040);

static void BM_InsertCellsMidRow(benchmark::State& state) {
    BufferLine line(cols, CharData(Attribute::empty, 'x', 1));
    for (auto _ : state) {
        line.insertPackedCells(10, 3, cols - 1, PackedCell{});
        benchmark::DoNotOptimize(line.storage.data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_InsertCellsMidRow);

BENCHMARK_MAIN();
