#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CorvexKit/Frame.h"
#include "CorvexKit/FrameParser.h"

using namespace corvex;

namespace {

struct Received {
    uint8_t type;
    std::string payload;
    bool operator==(const Received&) const = default;
};

struct Collector {
    FrameParser parser;
    std::vector<Received> frames;

    bool feed(std::string_view bytes) {
        return parser.append(bytes, [&](uint8_t type, std::string_view payload) {
            frames.push_back({type, std::string(payload)});
        });
    }
};

std::string header(uint32_t length, uint8_t type) {
    std::string out;
    appendBigEndian(out, length, 4);
    out.push_back(static_cast<char>(type));
    return out;
}

} // namespace

TEST(FrameParser, DeliversAFrameSplitAtAnyByteOnceAndWholeAtTheSecondRead) {
    std::string first = makeJSONFrame(R"({"id":1,"result":{}})");
    std::string second = makeOutputFrame(7, 1000, "hello");
    std::string both = first + second;
    const std::vector<Received> expected{{1, R"({"id":1,"result":{}})"},
                                         {2, second.substr(frameHeaderSize)}};
    for (size_t cut = 0; cut <= both.size(); ++cut) {
        Collector c;
        ASSERT_TRUE(c.feed(std::string_view(both).substr(0, cut)));
        size_t beforeSecondRead = c.frames.size();
        EXPECT_EQ(beforeSecondRead, cut >= first.size() ? (cut == both.size() ? 2u : 1u) : 0u) << "cut " << cut;
        ASSERT_TRUE(c.feed(std::string_view(both).substr(cut)));
        EXPECT_EQ(c.frames, expected) << "cut " << cut;
        EXPECT_EQ(c.parser.buffered(), 0u);
    }
}

TEST(FrameParser, ByteByByteAndManyFramesInOneReadKeepOrder) {
    std::string stream;
    std::vector<Received> expected;
    for (int i = 0; i < 50; ++i) {
        std::string body(static_cast<size_t>(i * 7), static_cast<char>('a' + i % 26));
        stream += makeFrame(FrameType::json, body);
        expected.push_back({1, body});
    }
    Collector glued;
    ASSERT_TRUE(glued.feed(stream));
    EXPECT_EQ(glued.frames, expected);

    Collector trickled;
    for (char byte : stream) ASSERT_TRUE(trickled.feed(std::string_view(&byte, 1)));
    EXPECT_EQ(trickled.frames, expected);
}

TEST(FrameParser, LengthLimits) {
    // Length 1 is an empty payload.
    Collector empty;
    ASSERT_TRUE(empty.feed(header(1, 2)));
    ASSERT_EQ(empty.frames.size(), 1u);
    EXPECT_EQ(empty.frames[0], (Received{2, ""}));

    // The largest length is accepted and waits for all of its bytes.
    Collector largest;
    ASSERT_TRUE(largest.feed(header(maxFrameLength, 1)));
    ASSERT_TRUE(largest.feed(std::string(maxFramePayload - 1, 'x')));
    EXPECT_TRUE(largest.frames.empty());
    ASSERT_TRUE(largest.feed("y"));
    ASSERT_EQ(largest.frames.size(), 1u);
    EXPECT_EQ(largest.frames[0].payload.size(), maxFramePayload);

    // 0 and one above the limit fail as soon as the length is readable, even after a good frame.
    for (uint32_t bad : {0u, maxFrameLength + 1, 0xffffffffu}) {
        Collector c;
        std::string good = makeJSONFrame("{}");
        std::string badHeader;
        appendBigEndian(badHeader, bad, 4);
        ASSERT_TRUE(c.feed(good + badHeader.substr(0, 3)));
        EXPECT_FALSE(c.feed(badHeader.substr(3))) << bad;
        EXPECT_EQ(c.frames.size(), 1u);
    }
}

TEST(FrameCodec, WideValuesRoundTripAndShortPayloadsAreRejected) {
    auto decode = [](const std::string& frame) { return std::string_view(frame).substr(frameHeaderSize); };

    std::string out = makeOutputFrame(0x0102030405060708ull, 0xfffffffffffffff0ull, "abc");
    EXPECT_EQ(out.substr(0, 5), header(20, 2));
    auto output = parseOutputPayload(decode(out));
    ASSERT_TRUE(output);
    EXPECT_EQ(output->pane, 0x0102030405060708ull);
    EXPECT_EQ(output->seq, 0xfffffffffffffff0ull);
    EXPECT_EQ(output->bytes, "abc");

    // Input and snapshot frames cross a real daemon in the backend contract suite; the output
    // frame is here for the full 64-bit pane and position, which no session there reaches.

    std::string file = makeFileDataFrame(5, 1u << 20, true, "");
    auto data = parseFileDataPayload(decode(file));
    ASSERT_TRUE(data);
    EXPECT_EQ(data->stream, 5u);
    EXPECT_EQ(data->offset, 1u << 20);
    EXPECT_TRUE(data->fin);
    EXPECT_TRUE(data->bytes.empty());
    EXPECT_FALSE(parseFileDataPayload(decode(makeFileDataFrame(5, 0, false, "x")))->fin);

    // Exactly the fixed header is a frame with no bytes; one byte less is dropped.
    std::string sixteen(16, '\0'), twenty(20, '\0'), seventeen(17, '\0'), eight(8, '\0');
    EXPECT_TRUE(parseOutputPayload(sixteen));
    EXPECT_FALSE(parseOutputPayload(sixteen.substr(1)));
    EXPECT_TRUE(parseSnapshotPayload(twenty));
    EXPECT_FALSE(parseSnapshotPayload(twenty.substr(1)));
    EXPECT_TRUE(parseFileDataPayload(seventeen));
    EXPECT_FALSE(parseFileDataPayload(seventeen.substr(1)));
    EXPECT_TRUE(parseInputPayload(eight));
    EXPECT_FALSE(parseInputPayload(eight.substr(1)));
}
