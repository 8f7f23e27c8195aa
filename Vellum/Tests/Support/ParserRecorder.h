#pragma once

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Vellum/EscapeSequenceParser.h"

namespace vellum::testing {

// A parser target that writes every call down as one readable line. Adjacent text runs and
// adjacent DCS payload slices are joined, so that the record does not depend on how the input
// was cut into chunks.
class ParserRecorder : public ParserTarget {
public:
    explicit ParserRecorder(const EscapeSequenceParser* parser = nullptr) : parser_(parser) {}

    std::vector<std::string> events;
    int readingBufferClears = 0;
    bool quiet = true;
    // Called after each recorded line; tests use it to act from inside a dispatch.
    std::function<void(const std::string& line)> afterEvent;

    void handlePrintBorrowed(std::span<const uint8_t> run) override;
    void dispatchExecute(uint8_t code) override;
    void dispatchCsi(uint8_t code, CsiParameters pars, std::span<const uint8_t> collect) override;
    void dispatchEsc(std::span<const uint8_t> collect, uint8_t code) override;
    std::unique_ptr<DcsHandler> dispatchDcs(std::span<const uint8_t> collect, uint8_t code,
                                            CsiParameters pars) override;
    void dispatchOsc(int64_t code, std::span<const uint8_t> data, uint8_t terminator) override;
    void dispatchApc(uint8_t command, std::span<const uint8_t> content) override;
    void clearReadingBuffer() override { ++readingBufferClears; }
    bool silentLog() const override { return quiet; }

    void append(std::string line, std::string_view joinablePrefix = {});

private:
    const EscapeSequenceParser* parser_;
};

// Printable ASCII as is, everything else as \xHH.
std::string escaped(std::span<const uint8_t> bytes);
std::string escaped(std::string_view bytes);

std::span<const uint8_t> asBytes(std::string_view text);

// Feeds `input` in pieces of the given sizes (the last size repeats) and gives the record.
std::vector<std::string> parseInPieces(EscapeSequenceParser& parser, ParserRecorder& recorder,
                                       std::string_view input, std::span<const size_t> pieceSizes);

} // namespace vellum::testing
