#include "CorvexKit/LocalFileBackend.h"

#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>

#include "CorvexKit/FileService.h"
#include "Platform/System.h"

namespace corvex {

std::optional<std::string> LocalFileBackend::homeDirectory() const { return platform::homeDirectory(); }

FileEntry LocalFileBackend::stat(const std::string& path) { return FileService::stat(path); }

FileListing LocalFileBackend::list(const std::string& path, bool hidden, std::optional<int> limit,
                                   std::optional<std::string> cursor) {
    return FileService::list(path, hidden, limit, cursor);
}

FileEntry LocalFileBackend::mkdir(const std::string& path, bool parents) { return FileService::mkdir(path, parents); }

FileEntry LocalFileBackend::setattr(const std::string& path, std::optional<std::string> mtimeNs,
                                    std::optional<int> mode) {
    return FileService::setattr(path, mtimeNs, mode);
}

FileEntry LocalFileBackend::rename(const std::string& from, const std::string& to, bool overwrite) {
    return FileService::rename(from, to, overwrite);
}

void LocalFileBackend::remove(const std::string& path, bool recursive) { FileService::remove(path, recursive); }

FileSpace LocalFileBackend::statfs(const std::string& path) { return FileService::statfs(path); }

FileReadStream LocalFileBackend::read(const std::string& path, const FileReadOptions& options) {
    OpenedRead opened = FileService::openRead(path, options);
    std::shared_ptr<ChunkReader> reader = opened.reader;
    return FileReadStream{opened.entry.size, opened.entry.mtimeNs, opened.offset, ChunkReader::blocks(reader),
                          [reader] { reader->close(); }};
}

FileEntry LocalFileBackend::write(const std::string& path, const FileWriteOptions& options, FileDataSource& source,
                                  FileProgress progress, const platform::CancellationToken& cancel) {
    std::unique_ptr<StagedWrite> staged = FileService::beginWrite(path, options);
    try {
        if (progress) progress(staged->offset());
        ByteBlocks blocks = source.open(staged->offset());
        while (std::optional<Bytes> block = blocks()) {
            if (cancel.isCancelled()) throw cancellationError();
            staged->append(*block);
            if (progress) progress(staged->total());
        }
    } catch (...) {
        staged->abandon();
        throw FileService::translate(std::current_exception(), staged->target());
    }
    return staged->finish();
}

LocalFileSource::LocalFileSource(std::string path, int chunk) : chunk_(chunk) {
    if (path == "~" || path.starts_with("~/")) path = platform::homeDirectory() + path.substr(1);
    path_ = std::move(path);
    struct stat record {};
    if (::stat(path_.c_str(), &record) != 0) throw std::system_error(errno, std::generic_category(), path_);
    size_ = static_cast<uint64_t>(record.st_size);
    double seconds = static_cast<double>(record.st_mtim.tv_sec) + static_cast<double>(record.st_mtim.tv_nsec) / 1e9;
    char text[64];
    auto end = std::to_chars(text, text + sizeof text, seconds).ptr;
    fingerprint_ = std::to_string(size_) + ":" + std::string(text, end);
}

ByteBlocks LocalFileSource::open(uint64_t offset) {
    int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw FileService::posixError(path_, errno);
    return ChunkReader::blocks(std::make_shared<ChunkReader>(fd, offset, std::nullopt, chunk_));
}

} // namespace corvex
