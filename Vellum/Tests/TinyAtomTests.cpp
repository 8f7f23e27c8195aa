#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Vellum/TinyAtom.h"

using namespace vellum;

// One test, because the table is process-wide and this exhausts it.
TEST(TinyAtom, CodesAreNeverReusedAndRunOut) {
    auto first = TinyAtom::lookup(std::string("https://example.com"));
    auto second = TinyAtom::lookup(std::string("https://example.com"));
    ASSERT_TRUE(first && second);
    EXPECT_NE(first->code, second->code);  // values are not compared
    EXPECT_EQ(std::any_cast<std::string>(*first->target()), "https://example.com");
    EXPECT_FALSE(TinyAtom{}.target());

    TinyAtom::release(first->code);
    TinyAtom::release(uint16_t(0));
    TinyAtom::release(uint16_t(60000));  // unknown
    EXPECT_FALSE(first->target());
    EXPECT_TRUE(second->target());

    std::vector<uint16_t> codes;
    while (auto atom = TinyAtom::lookup(int(codes.size()))) codes.push_back(atom->code);
    EXPECT_EQ(codes.size() + 2, 65534u);
    EXPECT_EQ(codes.back(), 65534);
    EXPECT_EQ(std::any_cast<int>(*TinyAtom{codes[10]}.target()), 10);

    TinyAtom::release(codes);
    EXPECT_FALSE(TinyAtom{codes[10]}.target());
    EXPECT_FALSE(TinyAtom::lookup(1));  // releasing frees no code
}
