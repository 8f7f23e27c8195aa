#pragma once

#include <string>

#include "CorvexKit/FileModel.h"

namespace corvex {

// This computer's files through the same interface as a daemon's, so a copy or a listing never
// asks which machine it is on. The rules themselves live in FileService, which the daemon
// serves too.
class LocalFileBackend final : public FileBackend {
public:
    bool supportsFiles() const override { return true; }
    bool isThisMachine() const override { return true; }
    std::optional<std::string> homeDirectory() const override;

    FileEntry stat(const std::string& path) override;
    FileListing list(const std::string& path, bool hidden, std::optional<int> limit,
                     std::optional<std::string> cursor) override;
    FileEntry mkdir(const std::string& path, bool parents) override;
    FileEntry setattr(const std::string& path, std::optional<std::string> mtimeNs, std::optional<int> mode) override;
    FileEntry rename(const std::string& from, const std::string& to, bool overwrite) override;
    void remove(const std::string& path, bool recursive) override;
    FileSpace statfs(const std::string& path) override;
    FileReadStream read(const std::string& path, const FileReadOptions& options) override;
    FileEntry write(const std::string& path, const FileWriteOptions& options, FileDataSource& source,
                    FileProgress progress,
                    const platform::CancellationToken& cancel = platform::CancellationToken()) override;
};

// A local file as the source of a write. The size and fingerprint are taken once, when made.
class LocalFileSource final : public FileDataSource {
public:
    // Raises what the file system reports, untranslated; a leading "~" is the home folder.
    explicit LocalFileSource(std::string path, int chunk = defaultFileChunk);

    uint64_t size() const override { return size_; }
    // "SIZE:MTIME", the time in seconds as a double.
    std::string fingerprint() const override { return fingerprint_; }
    ByteBlocks open(uint64_t offset) override;

    const std::string& path() const { return path_; }

private:
    std::string path_;
    uint64_t size_ = 0;
    std::string fingerprint_;
    int chunk_ = defaultFileChunk;
};

} // namespace corvex
