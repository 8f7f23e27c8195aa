#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "Support/TerminalHarness.h"

namespace {
std::atomic<long> allocations{0};
}

// Counts every allocation of this test binary.
void* operator new(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

using vellum::testing::TerminalHarness;

TEST(TerminalAllocation, ScrollingWithAFullScrollbackAllocatesNothingPerLine) {
    TerminalHarness h(80, 24, 200);
    std::string line = "\x1b[31mcoloured\x1b[m plain text that fills part of a row\r\n";
    for (int i = 0; i < 400; ++i) h.terminal.feed(line); // fill the scrollback and warm the arena
    ASSERT_EQ(h.terminal.buffer().scrollbackRows(), 200);

    long before = allocations.load();
    for (int i = 0; i < 2000; ++i) h.terminal.feed(line);
    EXPECT_EQ(allocations.load() - before, 0);
    EXPECT_EQ(h.terminal.buffer().scrollbackRows(), 200);
}
