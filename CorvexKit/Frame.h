#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The frame codec shared by the client and the daemon: 4-byte big-endian length (type byte
// included), one type byte, then the payload. Nothing here knows who is speaking.
namespace corvex {

enum class FrameType : uint8_t {
    json = 1,
    output = 2,
    input = 3,
    snapshot = 4,
    fileData = 5,
};

inline constexpr uint32_t maxFrameLength = 0x1000000;
inline constexpr size_t maxFramePayload = maxFrameLength - 1;
inline constexpr size_t frameHeaderSize = 5;

inline constexpr size_t outputHeaderSize = 16;
inline constexpr size_t inputHeaderSize = 8;
inline constexpr size_t snapshotHeaderSize = 20;
inline constexpr size_t fileDataHeaderSize = 17;

// Binary payloads as views into the frame they were parsed from.
struct OutputFrame {
    uint64_t pane = 0;
    uint64_t seq = 0;
    std::string_view bytes;
};

struct InputFrame {
    uint64_t pane = 0;
    std::string_view bytes;
};

struct SnapshotFrame {
    uint64_t pane = 0;
    uint64_t seq = 0;
    uint16_t cols = 0;
    uint16_t rows = 0;
    std::string_view bytes;
};

struct FileDataFrame {
    uint64_t stream = 0;
    uint64_t offset = 0;
    bool fin = false;
    std::string_view bytes;
};

// Absent when the payload is shorter than its fixed header.
std::optional<OutputFrame> parseOutputPayload(std::string_view payload);
std::optional<InputFrame> parseInputPayload(std::string_view payload);
std::optional<SnapshotFrame> parseSnapshotPayload(std::string_view payload);
std::optional<FileDataFrame> parseFileDataPayload(std::string_view payload);

// Whole frames, header and payload in one buffer, ready for one write. A payload above
// maxFramePayload is a programming error: the caller splits bulk data.
std::string makeFrame(FrameType type, std::string_view payload);
std::string makeJSONFrame(std::string_view json);
std::string makeOutputFrame(uint64_t pane, uint64_t seq, std::string_view bytes);
std::string makeInputFrame(uint64_t pane, std::string_view bytes);
std::string makeSnapshotFrame(uint64_t pane, uint64_t seq, uint16_t cols, uint16_t rows, std::string_view bytes);
std::string makeFileDataFrame(uint64_t stream, uint64_t offset, bool fin, std::string_view bytes);

// Big-endian helpers for the fixed headers.
void appendBigEndian(std::string& out, uint64_t value, int bytes);
uint64_t readBigEndian(const char* at, int bytes);

} // namespace corvex
