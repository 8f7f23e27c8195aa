#include "CorvexKit/Frame.h"

#include <cassert>

namespace corvex {

void appendBigEndian(std::string& out, uint64_t value, int bytes) {
    for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8) out.push_back(static_cast<char>((value >> shift) & 0xff));
}

uint64_t readBigEndian(const char* at, int bytes) {
    uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) value = (value << 8) | static_cast<uint8_t>(at[i]);
    return value;
}

namespace {

std::string frameWithHeader(FrameType type, size_t payloadSize) {
    assert(payloadSize <= maxFramePayload);
    std::string frame;
    frame.reserve(frameHeaderSize + payloadSize);
    appendBigEndian(frame, payloadSize + 1, 4);
    frame.push_back(static_cast<char>(type));
    return frame;
}

} // namespace

std::optional<OutputFrame> parseOutputPayload(std::string_view payload) {
    if (payload.size() < outputHeaderSize) return std::nullopt;
    return OutputFrame{readBigEndian(payload.data(), 8), readBigEndian(payload.data() + 8, 8),
                       payload.substr(outputHeaderSize)};
}

std::optional<InputFrame> parseInputPayload(std::string_view payload) {
    if (payload.size() < inputHeaderSize) return std::nullopt;
    return InputFrame{readBigEndian(payload.data(), 8), payload.substr(inputHeaderSize)};
}

std::optional<SnapshotFrame> parseSnapshotPayload(std::string_view payload) {
    if (payload.size() < snapshotHeaderSize) return std::nullopt;
    return SnapshotFrame{readBigEndian(payload.data(), 8), readBigEndian(payload.data() + 8, 8),
                         static_cast<uint16_t>(readBigEndian(payload.data() + 16, 2)),
                         static_cast<uint16_t>(readBigEndian(payload.data() + 18, 2)),
                         payload.substr(snapshotHeaderSize)};
}

std::optional<FileDataFrame> parseFileDataPayload(std::string_view payload) {
    if (payload.size() < fileDataHeaderSize) return std::nullopt;
    return FileDataFrame{readBigEndian(payload.data(), 8), readBigEndian(payload.data() + 8, 8),
                         (static_cast<uint8_t>(payload[16]) & 1) != 0, payload.substr(fileDataHeaderSize)};
}

std::string makeFrame(FrameType type, std::string_view payload) {
    std::string frame = frameWithHeader(type, payload.size());
    frame.append(payload);
    return frame;
}

std::string makeJSONFrame(std::string_view json) { return makeFrame(FrameType::json, json); }

std::string makeOutputFrame(uint64_t pane, uint64_t seq, std::string_view bytes) {
    std::string frame = frameWithHeader(FrameType::output, outputHeaderSize + bytes.size());
    appendBigEndian(frame, pane, 8);
    appendBigEndian(frame, seq, 8);
    frame.append(bytes);
    return frame;
}

std::string makeInputFrame(uint64_t pane, std::string_view bytes) {
    std::string frame = frameWithHeader(FrameType::input, inputHeaderSize + bytes.size());
    appendBigEndian(frame, pane, 8);
    frame.append(bytes);
    return frame;
}

std::string makeSnapshotFrame(uint64_t pane, uint64_t seq, uint16_t cols, uint16_t rows, std::string_view bytes) {
    std::string frame = frameWithHeader(FrameType::snapshot, snapshotHeaderSize + bytes.size());
    appendBigEndian(frame, pane, 8);
    appendBigEndian(frame, seq, 8);
    appendBigEndian(frame, cols, 2);
    appendBigEndian(frame, rows, 2);
    frame.append(bytes);
    return frame;
}

std::string makeFileDataFrame(uint64_t stream, uint64_t offset, bool fin, std::string_view bytes) {
    std::string frame = frameWithHeader(FrameType::fileData, fileDataHeaderSize + bytes.size());
    appendBigEndian(frame, stream, 8);
    appendBigEndian(frame, offset, 8);
    frame.push_back(fin ? 1 : 0);
    frame.append(bytes);
    return frame;
}

} // namespace corvex
