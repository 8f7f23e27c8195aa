#include "CorvexKit/FileService.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <random>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "Platform/System.h"

namespace corvex {

namespace {

constexpr size_t textProbeSize = 8192;
constexpr int defaultPageSize = 1000;
constexpr int largestPageSize = 10000;
constexpr int smallestReadChunk = 4096;
constexpr int64_t nanosecondsPerSecond = 1'000'000'000;
constexpr size_t smallestSyncedGroup = 2;

std::string lastComponent(const std::string& path) {
    size_t end = path.find_last_not_of('/');
    if (end == std::string::npos) return "/";
    size_t start = path.rfind('/', end);
    return path.substr(start == std::string::npos ? 0 : start + 1, end - (start == std::string::npos ? 0 : start + 1) + 1);
}

std::string parentDirectory(const std::string& path) {
    size_t end = path.find_last_not_of('/');
    if (end == std::string::npos) return "/";
    size_t slash = path.rfind('/', end);
    if (slash == std::string::npos) return ".";
    size_t parentEnd = path.find_last_not_of('/', slash);
    return parentEnd == std::string::npos ? "/" : path.substr(0, parentEnd + 1);
}

// Size and modification time: what tells one version of a file from another.
void takeVersion(FileEntry& entry, const struct stat& record) {
    entry.size = static_cast<uint64_t>(record.st_size);
    entry.mtime = static_cast<double>(record.st_mtim.tv_sec) + static_cast<double>(record.st_mtim.tv_nsec) / 1e9;
    entry.mtimeNs = std::to_string(static_cast<int64_t>(record.st_mtim.tv_sec) * nanosecondsPerSecond +
                                   record.st_mtim.tv_nsec);
}

FileType typeOf(mode_t mode) {
    if (S_ISREG(mode)) return FileType::file;
    if (S_ISDIR(mode)) return FileType::dir;
    return FileType::other;
}

std::optional<std::string> readLinkText(const std::string& path) {
    std::vector<char> buffer(256);
    for (;;) {
        ssize_t count = ::readlink(path.c_str(), buffer.data(), buffer.size());
        if (count < 0) return std::nullopt;
        if (static_cast<size_t>(count) < buffer.size()) return std::string(buffer.data(), static_cast<size_t>(count));
        buffer.resize(buffer.size() * 2);
    }
}

std::optional<int64_t> parseSignedDecimal(const std::string& text) {
    std::string_view digits = text;
    if (!digits.empty() && digits.front() == '+') digits.remove_prefix(1);
    if (digits.empty() || digits.front() == '+') return std::nullopt;
    int64_t value = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
    return value;
}

std::string freshUploadName() {
    std::random_device random;
    std::array<uint32_t, 4> words{random(), random(), random(), random()};
    char text[40];
    std::snprintf(text, sizeof text, "%08x-%04x-%04x-%04x-%04x%08x", words[0], words[1] >> 16, words[1] & 0xffff,
                  words[2] >> 16, words[2] & 0xffff, words[3]);
    return text;
}

std::optional<std::string> readWholeFile(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string text;
    char buffer[4096];
    ssize_t count = 0;
    while ((count = ::read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(count));
    ::close(fd);
    if (count < 0) return std::nullopt;
    return text;
}

bool writeAll(int fd, const uint8_t* data, size_t size, uint64_t at) {
    while (size > 0) {
        ssize_t count = ::pwrite(fd, data, size, static_cast<off_t>(at));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        data += count;
        size -= static_cast<size_t>(count);
        at += static_cast<uint64_t>(count);
    }
    return true;
}

// Written beside and renamed over, so a reader never sees half a fingerprint.
void writeSideFileAtomically(const std::string& path, const std::string& text) {
    std::string temporary = path + ".new";
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return;
    bool written = writeAll(fd, reinterpret_cast<const uint8_t*>(text.data()), text.size(), 0);
    ::close(fd);
    if (!written || ::rename(temporary.c_str(), path.c_str()) != 0) ::unlink(temporary.c_str());
}

// Nanoseconds since 1970 in decimal, as a file time; anything else is a bad request.
struct timespec modificationTime(const std::string& value) {
    std::optional<int64_t> nanoseconds = parseSignedDecimal(value);
    if (!nanoseconds) throw fileError(FileErrorCode::badRequest, "bad mtime_ns " + value);
    int64_t seconds = *nanoseconds / nanosecondsPerSecond;
    int64_t remainder = *nanoseconds % nanosecondsPerSecond;
    if (remainder < 0) {
        seconds -= 1;
        remainder += nanosecondsPerSecond;
    }
    return {static_cast<time_t>(seconds), static_cast<long>(remainder)};
}

// Too small to be worth resuming: it travels in one piece or a few.
bool isSmall(const FileWriteOptions& options) { return options.size && *options.size < (1u << 20); }

void removeIfThere(const std::string& path) {
    struct stat record {};
    if (::lstat(path.c_str(), &record) == 0) ::unlink(path.c_str());
}

// A new staging file is this write's own: never one that appeared at the name meanwhile.
int createExclusive(const std::string& path) { return ::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_CREAT | O_EXCL, 0600); }

// Where an earlier attempt's staging file ends, when it holds a beginning of this same source.
std::optional<uint64_t> resumableOffset(const std::string& staging, const std::string& sideFile,
                                        const FileWriteOptions& options) {
    struct stat held {};
    if (::lstat(staging.c_str(), &held) != 0 || !S_ISREG(held.st_mode)) return std::nullopt;
    std::optional<std::string> recorded = readWholeFile(sideFile);
    bool sameSource = recorded ? recorded == options.source : !options.source;
    // More than the source promises can't be a beginning of it.
    uint64_t size = static_cast<uint64_t>(held.st_size);
    bool fits = !options.size || size <= *options.size;
    if (!sameSource || !fits) return std::nullopt;
    return size;
}

std::optional<FileEntry> entryIfAny(const std::string& path) {
    // Most often nothing is there: answered without building an error to throw away.
    struct stat record {};
    if (::lstat(path.c_str(), &record) != 0) return std::nullopt;
    try {
        return FileService::entry(path);
    } catch (const BackendError&) {
        return std::nullopt;
    }
}

} // namespace

// MARK: - StagedWrite

StagedWrite::StagedWrite(std::string target, std::string stagingPath, FileWriteOptions options,
                         std::optional<FileEntry> existing, int fd, uint64_t offset)
    : target_(std::move(target)),
      stagingPath_(std::move(stagingPath)),
      options_(std::move(options)),
      existing_(std::move(existing)),
      fd_(fd),
      offset_(offset),
      total_(offset),
      flushed_(offset) {}

StagedWrite::~StagedWrite() {
    if (!done_) abandon();
    closeFile();
}

void StagedWrite::closeFile() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

void StagedWrite::append(ByteView bytes) {
    if (fd_ < 0) throw fileError(FileErrorCode::ioError, target_ + ": the write has ended");
    if (!writeAll(fd_, bytes.data(), bytes.size(), total_)) {
        int error = errno;
        abandon();
        throw FileService::posixError(target_, error);
    }
    wrote(bytes.size());
}

uint64_t StagedWrite::appendFrom(ChunkReader& reader, uint64_t most) {
    if (fd_ < 0) throw fileError(FileErrorCode::ioError, target_ + ": the write has ended");
    uint64_t count = 0;
    try {
        count = reader.copyInto(fd_, total_, most);
    } catch (const std::system_error& failure) {
        abandon();
        throw FileService::posixError(target_, failure.code().value());
    }
    wrote(count);
    return count;
}

void StagedWrite::wrote(uint64_t count) {
    total_ += count;
    // The disk starts on what has arrived while the rest is still coming, so the sync at the
    // end waits for a tail, not for the whole file.
    if (total_ - flushed_ >= writeBehind) {
#ifdef __linux__
        (void)::sync_file_range(fd_, static_cast<off_t>(flushed_), static_cast<off_t>(total_ - flushed_),
                                SYNC_FILE_RANGE_WRITE);
#endif
        flushed_ = total_;
    }
}

void StagedWrite::abandon() {
    if (done_) return;
    done_ = true;
    closeFile();
    if (!options_.uploadID) ::unlink(stagingPath_.c_str());
    else if (sideFileDeferred_) writeSideFileAtomically(FileService::sideFileName(stagingPath_), *options_.source);
}

void StagedWrite::checkComplete() {
    if (done_) throw fileError(FileErrorCode::ioError, target_ + ": the write has ended");
    if (options_.size && *options_.size != total_) {
        abandon(); // not the promised file: kept only as far as an upload id can resume it
        throw fileError(FileErrorCode::ioError, target_ + ": expected " + std::to_string(*options_.size) +
                                                    " bytes, got " + std::to_string(total_));
    }
}

void StagedWrite::sync() {
    checkComplete();
    // Every file's data reaches the disk before its name does, or a crash could leave a whole
    // name over an empty file. For a big file the write-behind above has done most of it; the
    // daemon syncs small files in groups (syncTogether), so they share one device flush.
    if (::fdatasync(fd_) != 0) {
        int error = errno;
        abandon();
        throw FileService::posixError(target_, error);
    }
    synced_ = true;
}

std::vector<std::exception_ptr> StagedWrite::syncTogether(const std::vector<StagedWrite*>& writes) {
    std::vector<std::exception_ptr> failures(writes.size());
    // A sync of the whole file system also waits for whatever else is dirty on it: worth it
    // only when it stands for more than one file.
    if (writes.size() < smallestSyncedGroup) {
        for (size_t index = 0; index < writes.size(); ++index) {
            try {
                writes[index]->sync();
            } catch (...) {
                failures[index] = std::current_exception();
            }
        }
        return failures;
    }
    // One descriptor of each file system stands for all of its writes in the group.
    std::map<dev_t, std::vector<size_t>> byDevice;
    for (size_t index = 0; index < writes.size(); ++index) {
        StagedWrite& write = *writes[index];
        try {
            write.checkComplete();
            struct stat record {};
            if (::fstat(write.fd_, &record) != 0) throw FileService::posixError(write.target_, errno);
            byDevice[record.st_dev].push_back(index);
        } catch (...) {
            failures[index] = std::current_exception();
        }
    }
    for (const auto& [device, members] : byDevice) {
        StagedWrite& first = *writes[members.front()];
        // Since Linux 5.8 a failed writeback of any file since the descriptor was opened is
        // reported here, so no file of the group can pass unwritten.
        int error = ::syncfs(first.fd_) == 0 ? 0 : errno;
        for (size_t index : members) {
            StagedWrite& write = *writes[index];
            if (error == 0) {
                write.synced_ = true;
                continue;
            }
            write.abandon();
            failures[index] = std::make_exception_ptr(FileService::posixError(write.target_, error));
        }
    }
    return failures;
}

FileEntry StagedWrite::finish() {
    place();
    return FileService::entry(target_);
}

void StagedWrite::place() {
    if (!synced_) sync();
    // From here on the staging file is whole and stays on failure, for a later look.
    done_ = true;
    if (options_.expectMtimeNs) {
        std::optional<FileEntry> now = entryIfAny(target_);
        if (now && now->mtimeNs != *options_.expectMtimeNs)
            throw fileError(FileErrorCode::conflict, target_ + " changed while it was being written");
    }
    std::optional<int> mode = options_.mode ? options_.mode : existing_ ? std::optional(existing_->mode) : std::nullopt;
    // Through the open descriptor: no path to look up again for each small file.
    if (mode) (void)::fchmod(fd_, static_cast<mode_t>(*mode));
    if (options_.mtimeNs) {
        struct timespec times[2] = {{0, UTIME_OMIT}, modificationTime(*options_.mtimeNs)};
        if (::futimens(fd_, times) != 0) throw FileService::posixError(stagingPath_, errno);
    }
    closeFile();
    int placed = options_.overwrite
                     ? ::rename(stagingPath_.c_str(), target_.c_str())
                     : ::renameat2(AT_FDCWD, stagingPath_.c_str(), AT_FDCWD, target_.c_str(), RENAME_NOREPLACE);
    if (placed != 0) throw FileService::posixError(target_, errno);
    if (options_.uploadID && !sideFileDeferred_) ::unlink(FileService::sideFileName(stagingPath_).c_str());
}

// MARK: - FileService

std::string FileService::resolve(const std::string& path) {
    if (path.find('\0') != std::string::npos) throw fileError(FileErrorCode::badRequest, "a path holds a zero byte");
    if (path == "~") return platform::homeDirectory();
    if (path.starts_with("~/")) return platform::homeDirectory() + path.substr(1);
    if (path.starts_with("/")) return path;
    throw fileError(FileErrorCode::badRequest, "not an absolute path: " + path);
}

BackendError FileService::posixError(const std::string& path, int error) {
    FileErrorCode code = FileErrorCode::ioError;
    switch (error) {
    case EPERM:
    case EACCES: code = FileErrorCode::permissionDenied; break;
    case ENOENT: code = FileErrorCode::notFound; break;
    case EEXIST: code = FileErrorCode::exists; break;
    case EXDEV: code = FileErrorCode::crossDevice; break;
    case ENOTDIR: code = FileErrorCode::notADirectory; break;
    case EISDIR: code = FileErrorCode::isADirectory; break;
    case ENOSPC:
    case EDQUOT: code = FileErrorCode::noSpace; break;
    case EROFS: code = FileErrorCode::readOnly; break;
    case ENOTEMPTY: code = FileErrorCode::notEmpty; break;
    default: break;
    }
    return fileError(code, path + ": " + std::strerror(error));
}

BackendError FileService::translate(const std::exception_ptr& error, const std::string& path) {
    try {
        std::rethrow_exception(error);
    } catch (const BackendError& backend) {
        return backend;
    } catch (const std::system_error& system) {
        const std::error_category& category = system.code().category();
        if (category == std::generic_category() || category == std::system_category())
            return posixError(path, system.code().value());
        return fileError(FileErrorCode::ioError, path + ": " + system.what());
    } catch (const std::exception& other) {
        return fileError(FileErrorCode::ioError, path + ": " + other.what());
    } catch (...) {
        return fileError(FileErrorCode::ioError, path + ": unknown failure");
    }
}

void FileService::setMtime(const std::string& path, const std::string& value) {
    struct timespec times[2] = {{0, UTIME_OMIT}, modificationTime(value)};
    if (::utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) throw posixError(path, errno);
}

bool FileService::looksLikeText(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return false;
    std::array<char, textProbeSize> buffer{};
    ssize_t count = ::read(fd, buffer.data(), buffer.size());
    ::close(fd);
    if (count <= 0) return true;
    return std::memchr(buffer.data(), 0, static_cast<size_t>(count)) == nullptr;
}

FileEntry FileService::entry(const std::string& path, bool text) {
    struct stat record {};
    if (::lstat(path.c_str(), &record) != 0) throw posixError(path, errno);
    FileEntry entry;
    entry.link = S_ISLNK(record.st_mode);
    if (entry.link) {
        entry.target = readLinkText(path);
        struct stat resolved {};
        if (::stat(path.c_str(), &resolved) == 0) record = resolved;
    }
    entry.type = typeOf(record.st_mode);
    entry.path = path;
    entry.name = path == "/" ? "/" : lastComponent(path);
    takeVersion(entry, record);
    entry.mode = static_cast<int>(record.st_mode & 07777);
    entry.hidden = entry.name.starts_with(".");
    if (text && entry.type == FileType::file) entry.text = looksLikeText(path);
    return entry;
}

FileEntry FileService::stat(const std::string& path) { return entry(resolve(path), true); }

FileListing FileService::list(const std::string& path, bool hidden, std::optional<int> limit,
                              const std::optional<std::string>& cursor) {
    std::string directory = resolve(path);
    FileListing listing;
    listing.dir = entry(directory);
    if (listing.dir.type != FileType::dir)
        throw fileError(FileErrorCode::notADirectory, directory + " isn't a directory");

    std::vector<std::string> names;
    DIR* stream = ::opendir(directory.c_str());
    if (!stream) throw posixError(directory, errno);
    while (const dirent* item = ::readdir(stream)) {
        std::string name = item->d_name;
        if (name == "." || name == "..") continue;
        if (!hidden && name.starts_with(".")) continue;
        if (cursor && !(*cursor < name)) continue;
        names.push_back(std::move(name));
    }
    ::closedir(stream);
    // Byte order, not the locale's: the cursor means the same on every machine.
    std::sort(names.begin(), names.end());

    size_t pageSize = static_cast<size_t>(limit ? std::clamp(*limit, 1, largestPageSize) : defaultPageSize);
    size_t count = std::min(pageSize, names.size());
    if (count < names.size()) listing.next = names[count - 1];
    for (size_t index = 0; index < count; ++index) {
        // A name that vanished since the directory was read is left out, not a failure.
        if (std::optional<FileEntry> child = entryIfAny(filePath(directory, names[index])))
            listing.entries.push_back(std::move(*child));
    }
    return listing;
}

FileEntry FileService::mkdir(const std::string& path, bool parents) {
    std::string directory = resolve(path);
    if (!parents) {
        if (::mkdir(directory.c_str(), 0755) != 0) throw posixError(directory, errno);
        return entry(directory);
    }
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) {
        struct stat record {};
        // Something that isn't a directory stands in the way: say so plainly.
        if (::lstat(directory.c_str(), &record) == 0 && !S_ISDIR(record.st_mode)) throw posixError(directory, EEXIST);
        throw posixError(directory, error.value());
    }
    return entry(directory);
}

FileEntry FileService::setattr(const std::string& path, const std::optional<std::string>& mtimeNs,
                               std::optional<int> mode) {
    std::string target = resolve(path);
    if (mode) {
        if (*mode < 0 || *mode > 65535) throw fileError(FileErrorCode::badRequest, "bad mode " + std::to_string(*mode));
        if (::chmod(target.c_str(), static_cast<mode_t>(*mode)) != 0) throw posixError(target, errno);
    }
    if (mtimeNs) setMtime(target, *mtimeNs);
    return entry(target);
}

FileEntry FileService::rename(const std::string& from, const std::string& to, bool overwrite) {
    std::string source = resolve(from);
    std::string target = resolve(to);
    int result = overwrite ? ::rename(source.c_str(), target.c_str())
                           : ::renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE);
    if (result != 0) {
        int error = errno;
        throw posixError(error == EXDEV ? target : source, error);
    }
    return entry(target);
}

void FileService::remove(const std::string& path, bool recursive) {
    std::string target = resolve(path);
    FileEntry found = entry(target);
    if (found.isDirectory() && !found.link) {
        if (recursive) {
            std::error_code error;
            std::filesystem::remove_all(target, error);
            if (error) throw posixError(target, error.value());
        } else if (::rmdir(target.c_str()) != 0) {
            throw posixError(target, errno);
        }
        return;
    }
    // A link is removed itself, never what it points to.
    if (::unlink(target.c_str()) != 0) throw posixError(target, errno);
}

FileSpace FileService::statfs(const std::string& path) {
    std::string target = resolve(path);
    struct statfs record {};
    if (::statfs(target.c_str(), &record) != 0) throw posixError(target, errno);
    uint64_t blockSize = static_cast<uint64_t>(record.f_bsize);
    return FileSpace{static_cast<uint64_t>(record.f_blocks) * blockSize, static_cast<uint64_t>(record.f_bfree) * blockSize,
                     static_cast<uint64_t>(record.f_bavail) * blockSize};
}

OpenedRead FileService::openRead(const std::string& path, const FileReadOptions& options) {
    std::string source = resolve(path);
    FileEntry found = entry(source);
    if (found.type != FileType::file)
        throw fileError(found.isDirectory() ? FileErrorCode::isADirectory : FileErrorCode::badRequest,
                        source + " isn't a file");
    // Non-blocking, so a FIFO swapped in since the look above can't hang the open.
    int fd = ::open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) throw posixError(source, errno);
    struct stat record {};
    if (::fstat(fd, &record) != 0 || !S_ISREG(record.st_mode)) {
        ::close(fd);
        throw fileError(FileErrorCode::badRequest, source + " isn't a file");
    }
    // The version checked is the one opened, not one that the path held a moment before.
    takeVersion(found, record);
    try {
        expectVersion(found, options);
    } catch (...) {
        ::close(fd);
        throw;
    }
    uint64_t end = options.length ? std::min(options.offset + *options.length, found.size) : found.size;
    auto reader = std::make_shared<ChunkReader>(fd, options.offset, end, std::max(options.chunk, smallestReadChunk));
    return OpenedRead{std::move(found), options.offset, std::move(reader)};
}

void FileService::expectVersion(const FileEntry& found, const FileReadOptions& options) {
    if (options.expectSize && *options.expectSize != found.size)
        throw fileError(FileErrorCode::changed, found.path + " changed size");
    if (options.expectMtimeNs && *options.expectMtimeNs != found.mtimeNs)
        throw fileError(FileErrorCode::changed, found.path + " changed");
}

std::string FileService::stagingName(const std::string& targetName, const std::string& id) {
    return "." + targetName + ".corvex-part-" + id;
}

std::string FileService::sideFileName(const std::string& stagingName) { return stagingName + ".source"; }

std::string FileService::bootID() {
    static const std::string id = [] {
        std::string text = readWholeFile("/proc/sys/kernel/random/boot_id").value_or("");
        while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
        return text;
    }();
    return id;
}

std::unique_ptr<StagedWrite> FileService::beginWrite(const std::string& path, const FileWriteOptions& options) {
    std::string target = resolve(path);
    std::optional<FileEntry> existing = entryIfAny(target);
    if (existing && existing->link) {
        struct stat resolved {};
        if (!existing->target || ::stat(target.c_str(), &resolved) != 0)
            throw fileError(FileErrorCode::notFound, target + " is a dangling link");
        // The file behind the link is replaced; the link itself stays a link.
        target = existing->target->starts_with("/") ? *existing->target
                                                    : filePath(parentDirectory(target), *existing->target);
        existing = entryIfAny(target);
    }
    if (existing && existing->isDirectory()) throw fileError(FileErrorCode::isADirectory, target + " is a directory");
    if (existing && !options.overwrite) throw fileError(FileErrorCode::exists, target + " already exists");

    std::string staging =
        filePath(parentDirectory(target), stagingName(lastComponent(target), options.uploadID ? *options.uploadID : freshUploadName()));
    std::string sideFile = sideFileName(staging);

    std::optional<uint64_t> resumeAt;
    int fd = -1;
    if (options.uploadID) {
        // Most often no earlier attempt left anything: the staging file is made at once, and a
        // name already taken is looked at only then. Many small files are written into one
        // folder at once, and each look at a name that isn't there searches the folder.
        fd = createExclusive(staging);
        if (fd < 0 && errno == EEXIST) {
            resumeAt = resumableOffset(staging, sideFile, options);
            if (!resumeAt) {
                ::unlink(staging.c_str());
                // A small file's fingerprint is only written should the write break: a tree
                // of small files then costs no extra file per file. A crash before that leaves
                // a staging file without one, which the next attempt starts again, as it must.
                // A fingerprint is only ever left beside a staging file.
                if (options.source && isSmall(options)) removeIfThere(sideFile);
            }
            fd = resumeAt ? ::open(staging.c_str(), O_WRONLY | O_CLOEXEC) : createExclusive(staging);
        }
        // Written once the staging file stands: a crash between the two leaves a staging file
        // without a fingerprint, which the next attempt starts again.
        if (fd >= 0 && !resumeAt && options.source && !isSmall(options)) writeSideFileAtomically(sideFile, *options.source);
    } else {
        removeIfThere(staging);
        fd = createExclusive(staging);
    }
    if (fd < 0) {
        int error = errno;
        if (!options.uploadID) ::unlink(staging.c_str());
        throw posixError(staging, error);
    }
    auto staged = std::unique_ptr<StagedWrite>(
        new StagedWrite(target, staging, options, std::move(existing), fd, resumeAt.value_or(0)));
    staged->sideFileDeferred_ = options.uploadID && options.source && !resumeAt && isSmall(options);
    return staged;
}

} // namespace corvex
