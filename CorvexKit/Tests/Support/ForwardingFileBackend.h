#pragma once

#include "CorvexKit/LocalFileBackend.h"

namespace corvex::testing {

// This computer's files behind a seam: a test derives from it and changes only the operation
// its fault lives in.
class ForwardingFileBackend : public FileBackend {
public:
    bool supportsFiles() const override { return true; }
    std::optional<std::string> homeDirectory() const override { return disk.homeDirectory(); }
    FileEntry stat(const std::string& path) override { return disk.stat(path); }
    FileListing list(const std::string& path, bool hidden, std::optional<int> limit,
                     std::optional<std::string> cursor) override {
        return disk.list(path, hidden, limit, std::move(cursor));
    }
    FileEntry mkdir(const std::string& path, bool parents) override { return disk.mkdir(path, parents); }
    FileEntry setattr(const std::string& path, std::optional<std::string> mtimeNs, std::optional<int> mode) override {
        return disk.setattr(path, std::move(mtimeNs), mode);
    }
    FileEntry rename(const std::string& from, const std::string& to, bool overwrite) override {
        return disk.rename(from, to, overwrite);
    }
    void remove(const std::string& path, bool recursive) override { disk.remove(path, recursive); }
    FileSpace statfs(const std::string& path) override { return disk.statfs(path); }
    FileReadStream read(const std::string& path, const FileReadOptions& options) override {
        return disk.read(path, options);
    }
    FileEntry write(const std::string& path, const FileWriteOptions& options, FileDataSource& source,
                    FileProgress progress, const platform::CancellationToken& cancel) override {
        return disk.write(path, options, source, std::move(progress), cancel);
    }

    LocalFileBackend disk;
};

} // namespace corvex::testing
