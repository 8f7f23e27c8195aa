#include <gtest/gtest.h>

#include "CorvexKit/FileStreamWindow.h"

using corvex::FileStreamWindow;

namespace {

FileStreamWindow writing(uint64_t window, uint64_t acked, uint64_t sent) {
    FileStreamWindow stream;
    stream.kind = FileStreamWindow::Kind::write;
    stream.window = window;
    stream.acked = acked;
    stream.sent = sent;
    return stream;
}

FileStreamWindow reading(uint64_t window, uint64_t chunk, uint64_t received, uint64_t readAcked) {
    FileStreamWindow stream;
    stream.window = window;
    stream.chunk = chunk;
    stream.received = received;
    stream.readAcked = readAcked;
    return stream;
}

} // namespace

TEST(FileStreamWindow, AWriterWaitsForCreditBeyondTheWindow) {
    FileStreamWindow stream = writing(4 << 20, 1000, 1000);
    EXPECT_TRUE(stream.hasCreditFor(1000 + (4 << 20)));
    EXPECT_FALSE(stream.hasCreditFor(1001 + (4 << 20)));
    EXPECT_FALSE(writing(0, 0, 0).hasCreditFor(1));
    EXPECT_TRUE(writing(0, 0, 0).hasCreditFor(0));
}

TEST(FileStreamWindow, AWriteStallsOnlyWhenTheReceiverOwesAnAnswer) {
    EXPECT_FALSE(writing(0, 0, 0).isStalled(100, 60)); // nothing sent before the first ack
    FileStreamWindow finished = writing(0, 0, 0);
    finished.finSent = true;
    EXPECT_TRUE(finished.isStalled(60, 60)); // exactly the timeout counts
    EXPECT_FALSE(finished.isStalled(59.9, 60));
    EXPECT_TRUE(writing(400, 0, 100).isStalled(60, 60));
    EXPECT_FALSE(writing(400, 0, 99).isStalled(60, 60)); // waiting for its own source
    FileStreamWindow ended = writing(400, 0, 400);
    ended.ended = true;
    EXPECT_FALSE(ended.isStalled(600, 60));
}

TEST(FileStreamWindow, AReadStallsOnlyWhenCreditWasGivenAndNothingCame) {
    EXPECT_TRUE(reading(1000, 100, 0, 0).isStalled(60, 60));
    EXPECT_FALSE(reading(1000, 100, 1000, 0).isStalled(60, 60)); // the window is used up by a slow reader
    EXPECT_TRUE(reading(1000, 100, 1000, 100).isStalled(60, 60));
}

TEST(FileStreamWindow, ReadAcknowledgementsComeEveryQuarterWindow) {
    EXPECT_FALSE(FileStreamWindow::readAckDue(1048575, 0, 4194304));
    EXPECT_TRUE(FileStreamWindow::readAckDue(1048576, 0, 4194304));
    FileStreamWindow held = reading(1000, 100, 1000, 0);
    EXPECT_TRUE(held.noteReadAck(500));
    EXPECT_EQ(held.readAcked, 500u);
    EXPECT_FALSE(held.noteReadAck(400));
    EXPECT_EQ(held.readAcked, 500u);
}
