#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "CorvexKit/Frame.h"

namespace corvex {

// Cuts a byte stream into frames. One parser serves one connection, on its reading thread.
// Frames that arrive whole in one chunk are handed out straight from that chunk; only a
// trailing partial frame is kept, and consumed bytes leave the buffer once per append.
class FrameParser {
public:
    // Calls handler(uint8_t type, std::string_view payload) for each whole frame, in order.
    // The payload view is valid only during the call. False on a length of 0 or above
    // maxFrameLength: the stream can't be trusted after that and must be given up.
    template <typename Handler>
    bool append(std::string_view bytes, Handler&& handler) {
        if (buffer_.empty()) {
            size_t used = 0;
            bool ok = consume(bytes, used, handler);
            buffer_.assign(bytes.substr(used));
            return ok;
        }
        buffer_.append(bytes);
        size_t used = 0;
        bool ok = consume(buffer_, used, handler);
        buffer_.erase(0, used);
        return ok;
    }

    // Bytes held for a frame not yet complete.
    size_t buffered() const { return buffer_.size(); }

private:
    template <typename Handler>
    static bool consume(std::string_view data, size_t& at, Handler& handler) {
        while (data.size() - at >= 4) {
            uint64_t length = readBigEndian(data.data() + at, 4);
            if (length == 0 || length > maxFrameLength) return false;
            if (data.size() - at < 4 + length) return true;
            handler(static_cast<uint8_t>(data[at + 4]), data.substr(at + frameHeaderSize, length - 1));
            at += 4 + length;
        }
        return true;
    }

    std::string buffer_;
};

} // namespace corvex
