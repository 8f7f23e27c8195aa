#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CorvexKit/FileModel.h"
#include "CorvexKit/SessionBackend.h"

namespace corvex::testing {

// The names of a listing's entries, in its order.
inline std::vector<std::string> names(const FileListing& listing) {
    std::vector<std::string> found;
    for (const FileEntry& entry : listing.entries) found.push_back(entry.name);
    return found;
}

// Deterministic bytes, so a copy can be compared byte for byte.
inline std::string patternBytes(size_t size, unsigned seed = 1) {
    std::string bytes(size, '\0');
    uint32_t state = seed * 2654435761u + 1;
    for (char& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

inline void writeBytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Names in a folder that a broken write left behind.
inline std::vector<std::string> stagingFiles(const std::string& directory) {
    std::vector<std::string> found;
    for (const auto& item : std::filesystem::recursive_directory_iterator(directory))
        if (item.path().filename().string().find(".corvex-part-") != std::string::npos)
            found.push_back(item.path().string());
    return found;
}

// A source of bytes held in memory, with a fingerprint the test chooses.
class MemorySource final : public FileDataSource {
public:
    MemorySource(std::string bytes, std::string fingerprint = "mem", size_t block = 1000)
        : bytes_(std::move(bytes)), fingerprint_(std::move(fingerprint)), block_(block) {}

    uint64_t size() const override { return bytes_.size(); }
    std::string fingerprint() const override { return fingerprint_; }
    ByteBlocks open(uint64_t offset) override {
        openedAt.push_back(offset);
        auto position = std::make_shared<size_t>(static_cast<size_t>(offset));
        return [this, position]() -> std::optional<Bytes> {
            if (failAfter && *position >= *failAfter) throw BackendError("disconnected", "the source went away");
            if (*position >= bytes_.size()) return std::nullopt;
            size_t count = std::min(block_, bytes_.size() - *position);
            if (failAfter) count = std::min(count, *failAfter - *position);
            Bytes block(bytes_.begin() + static_cast<long>(*position), bytes_.begin() + static_cast<long>(*position + count));
            *position += count;
            return block;
        };
    }

    std::optional<size_t> failAfter; // raises "disconnected" once this many bytes were given
    std::vector<uint64_t> openedAt;

private:
    std::string bytes_;
    std::string fingerprint_;
    size_t block_;
};

// The error `work` fails with; a work that doesn't fail is a test failure.
template <typename Work>
BackendError failureOf(Work&& work) {
    try {
        work();
    } catch (const BackendError& error) {
        return error;
    }
    ADD_FAILURE() << "expected a failure";
    return BackendError("none", "");
}

// Everything a read stream gives, in one string.
inline std::string drain(ByteBlocks& blocks) {
    std::string bytes;
    while (std::optional<Bytes> block = blocks()) bytes.append(block->begin(), block->end());
    return bytes;
}

} // namespace corvex::testing
