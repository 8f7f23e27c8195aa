#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Tools/vellum-replay/Replay.h"

using vellum::replay::ReplayOptions;
using vellum::replay::replay;

TEST(VellumReplay, ReportsTheScreenAsJson) {
    ReplayOptions options{.cols = 6, .rows = 2, .scrollback = 10};
    auto out = nlohmann::json::parse(replay("\x1b]2;t\x07one\r\ntwo\r\nthree!!\x1b[c\x1b[?25l", options));
    EXPECT_EQ(out["cols"], 6);
    EXPECT_EQ(out["rows"], 2);
    EXPECT_EQ(out["title"], "t");
    EXPECT_EQ(out["lines"], nlohmann::json({"three!", "!"}));
    EXPECT_EQ(out["wrapped"], nlohmann::json({false, true}));
    EXPECT_EQ(out["scrollback"], nlohmann::json({"one", "two"}));
    EXPECT_EQ(out["cursor"], nlohmann::json({{"x", 1}, {"y", 1}, {"visible", false}}));
    EXPECT_EQ(out["alternate"], false);
    EXPECT_EQ(out["replies"], "\x1b[?65;4;1;2;6;21;22;17;28c");
    EXPECT_FALSE(out.contains("cells"));

    options.cells = true;
    auto cells = nlohmann::json::parse(replay("\x1b[31;1m\xe4\xb8\xad\x1b[48;2;1;2;3mx", options))["cells"];
    EXPECT_EQ(cells[0][0]["text"], "\xe4\xb8\xad");
    EXPECT_EQ(cells[0][0]["width"], 2);
    EXPECT_EQ(cells[0][0]["fg"], 1);
    EXPECT_EQ(cells[0][1]["width"], 0);
    EXPECT_EQ(cells[0][2]["bg"], "#010203");
    EXPECT_EQ(cells[0][3]["bg"], "default");
}

TEST(VellumReplay, EveryChunkSizeGivesTheSameResult) {
    std::string stream;
    for (int i = 0; i < 40; ++i) {
        stream += "\x1b[3" + std::to_string(i % 8) + "mline " + std::to_string(i) + " \xe4\xb8\xad\xf0\x9f\x98\x80 e\xcc\x81";
        stream += "\x1b]0;title " + std::to_string(i) + "\x07\x1bP$qm\x1b\\\r\n";
        if (i % 9 == 0) stream += "\x1b[?1049h\x1b[2;5Hx\x1b[?1049l\x1b[6n";
    }
    ReplayOptions options{.cols = 12, .rows = 5, .scrollback = 20, .chunk = 0, .cells = true};
    std::string whole = replay(stream, options);
    for (size_t chunk : {1, 2, 3, 5, 7, 64, 4096}) {
        options.chunk = chunk;
        EXPECT_EQ(replay(stream, options), whole) << "chunk " << chunk;
    }
}
