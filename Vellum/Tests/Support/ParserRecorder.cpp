#include "Support/ParserRecorder.h"

namespace vellum::testing {

namespace {

class RecordingDcsHandler : public DcsHandler {
public:
    explicit RecordingDcsHandler(ParserRecorder& recorder) : recorder_(recorder) {}
    void hook(std::span<const uint8_t> collect, CsiParameters parameters, uint8_t flag) override {
        std::string pars;
        for (int i = 0; i < parameters.size(); ++i) pars += (i ? ";" : "") + std::to_string(parameters[i]);
        recorder_.append("DCS hook " + escaped(collect) + " " + pars + " " + char(flag));
    }
    void put(std::span<const uint8_t> data) override { recorder_.append("DCS put " + escaped(data), "DCS put "); }
    void unhook() override { recorder_.append("DCS unhook"); }

private:
    ParserRecorder& recorder_;
};

} // namespace

std::span<const uint8_t> asBytes(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

std::string escaped(std::span<const uint8_t> bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    for (uint8_t b : bytes) {
        if (b >= 0x20 && b < 0x7F && b != '\\') {
            out += char(b);
        } else {
            out += "\\x";
            out += digits[b >> 4];
            out += digits[b & 15];
        }
    }
    return out;
}

std::string escaped(std::string_view bytes) { return escaped(asBytes(bytes)); }

void ParserRecorder::append(std::string line, std::string_view joinablePrefix) {
    if (!joinablePrefix.empty() && !events.empty() && events.back().starts_with(joinablePrefix)) {
        events.back() += line.substr(joinablePrefix.size());
    } else {
        events.push_back(std::move(line));
    }
    if (afterEvent) afterEvent(events.back());
}

void ParserRecorder::handlePrintBorrowed(std::span<const uint8_t> run) {
    append("print " + escaped(run), "print ");
}

void ParserRecorder::dispatchExecute(uint8_t code) { append("exec " + escaped(std::span(&code, 1))); }

void ParserRecorder::dispatchCsi(uint8_t code, CsiParameters pars, std::span<const uint8_t> collect) {
    uint64_t colons = code == 'm' && parser_ ? parser_->parsColonMask() : 0;
    std::string text;
    for (int i = 0; i < pars.size(); ++i) {
        if (i) text += (colons >> (i - 1) & 1) ? ":" : ";";
        text += std::to_string(pars[i]);
    }
    append("CSI " + escaped(collect) + " " + text + " " + char(code));
}

void ParserRecorder::dispatchEsc(std::span<const uint8_t> collect, uint8_t code) {
    append("ESC " + escaped(collect) + " " + escaped(std::span(&code, 1)));
}

std::unique_ptr<DcsHandler> ParserRecorder::dispatchDcs(std::span<const uint8_t>, uint8_t, CsiParameters) {
    return std::make_unique<RecordingDcsHandler>(*this);
}

void ParserRecorder::dispatchOsc(int64_t code, std::span<const uint8_t> data, uint8_t terminator) {
    append("OSC " + std::to_string(code) + " " + escaped(data) + " " + escaped(std::span(&terminator, 1)));
}

void ParserRecorder::dispatchApc(uint8_t command, std::span<const uint8_t> content) {
    append("APC " + escaped(std::span(&command, 1)) + " " + escaped(content));
}

std::vector<std::string> parseInPieces(EscapeSequenceParser& parser, ParserRecorder& recorder,
                                       std::string_view input, std::span<const size_t> pieceSizes) {
    size_t at = 0;
    size_t piece = 0;
    while (at < input.size()) {
        size_t size = pieceSizes.empty() ? input.size() : pieceSizes[std::min(piece++, pieceSizes.size() - 1)];
        size = std::min(std::max<size_t>(size, 1), input.size() - at);
        parser.parseBorrowed(asBytes(input.substr(at, size)), recorder);
        at += size;
    }
    return recorder.events;
}

} // namespace vellum::testing
