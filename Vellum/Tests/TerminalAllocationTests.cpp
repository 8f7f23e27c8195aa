#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "Support/TerminalHarness.h"

namespace {
std::atomic<long> allocations{0};
}

// Counts every allocation of this test binary. Not inlined, so that the compiler does not pair
// the malloc inside with a delete elsewhere and warn about a mismatch that is not there.
__attribute__((noinline)) void* operator new(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void* p, std::size_t) noexcept { std::free(p); }

using vellum::testing::TerminalHarness;

TEST(TerminalAllocation, ScrollingWithAFullScrollbackAllocatesNothingPerLine) {
    TerminalHarness h(80, 24, 200);
    // Every road of the print path: ASCII, wide text, clusters that join, colours.
    std::string line = "\x1b[31mcoloured\x1b[m plain text \xe4\xb8\xad\xe6\x96\x87 e\xcc\x81 "
                       "\xf0\x9f\x91\xa9\xe2\x80\x8d\xf0\x9f\x91\xa7 \x1b[38;2;9;8;7;48;5;20m\xe2\x9d\xa4\xef\xb8\x8f\x1b[m\r\n";
    for (int i = 0; i < 400; ++i) h.terminal.feed(line); // fill the scrollback and warm the arena
    ASSERT_EQ(h.terminal.buffer().scrollbackRows(), 200);

    long before = allocations.load();
    for (int i = 0; i < 2000; ++i) h.terminal.feed(line);
    EXPECT_EQ(allocations.load() - before, 0);
    EXPECT_EQ(h.terminal.buffer().scrollbackRows(), 200);
}

TEST(TerminalAllocation, LinesOfVaryingLengthsAllocateNothingOnceTheLengthsRepeat) {
    TerminalHarness h(80, 24, 200);
    // Rows come back for lines of other lengths than they held: their words grow or shrink
    // through the buffer's spare words.
    std::string lines[] = {"short\r\n", std::string(70, 'w') + "\r\n", std::string(31, 'm') + "\x1b[42m tail\x1b[m\r\n",
                           std::string(100, 'x') + "\r\n"};
    for (int i = 0; i < 1200; ++i) h.terminal.feed(lines[i % 4]);
    long before = allocations.load();
    for (int i = 0; i < 2000; ++i) h.terminal.feed(lines[i % 4]);
    EXPECT_EQ(allocations.load() - before, 0);
}
