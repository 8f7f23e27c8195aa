#pragma once

#include <string>
#include <vector>

#include "CorvexKit/SessionBackend.h"

namespace corvex::testkit {

// A pane sink that writes down each call as a short line.
class RecordingSink final : public PaneDataSink {
public:
    std::vector<std::string> calls;

    void paneSubscribed(const Subscription& s) override {
        calls.push_back("subscribed " + std::string(wireName(s.mode)) + " " + std::to_string(s.seq));
    }
    void paneOutput(uint64_t seq, ByteView bytes) override {
        calls.push_back("output " + std::to_string(seq) + " " + std::string(bytes.begin(), bytes.end()));
    }
    void paneSnapshot(uint64_t seq, int cols, int rows, ByteView bytes) override {
        calls.push_back("snapshot " + std::to_string(seq) + " " + std::to_string(cols) + "x" + std::to_string(rows) +
                        " " + std::string(bytes.begin(), bytes.end()));
    }
    void paneResized(int cols, int rows, uint64_t seq) override {
        calls.push_back("resized " + std::to_string(cols) + "x" + std::to_string(rows) + " " + std::to_string(seq));
    }
    void paneResync() override { calls.push_back("resync"); }
    void paneReset() override { calls.push_back("reset"); }
    void paneClipboard(const std::string& text, bool selection) override {
        calls.push_back(std::string(selection ? "selection " : "clipboard ") + text);
    }
};

} // namespace corvex::testkit
