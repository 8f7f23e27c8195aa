#include "CorvexKit/FileModel.h"

#include <array>

namespace corvex {

namespace {

constexpr std::array<std::pair<FileType, std::string_view>, 4> fileTypeNames{{
    {FileType::file, "file"},
    {FileType::dir, "dir"},
    {FileType::other, "other"},
    {FileType::unknown, "unknown"},
}};

constexpr std::array<std::pair<FileErrorCode, std::string_view>, 14> fileErrorNames{{
    {FileErrorCode::notFound, "not_found"},
    {FileErrorCode::exists, "exists"},
    {FileErrorCode::permissionDenied, "permission_denied"},
    {FileErrorCode::notADirectory, "not_a_directory"},
    {FileErrorCode::isADirectory, "is_a_directory"},
    {FileErrorCode::notEmpty, "not_empty"},
    {FileErrorCode::crossDevice, "cross_device"},
    {FileErrorCode::noSpace, "no_space"},
    {FileErrorCode::readOnly, "read_only"},
    {FileErrorCode::conflict, "conflict"},
    {FileErrorCode::changed, "changed"},
    {FileErrorCode::tooManyStreams, "too_many_streams"},
    {FileErrorCode::badRequest, "bad_request"},
    {FileErrorCode::ioError, "io_error"},
}};

constexpr std::string_view cancelledCode = "cancelled";

} // namespace

std::string_view wireName(FileType type) {
    for (const auto& [value, name] : fileTypeNames)
        if (value == type) return name;
    return "unknown";
}

FileType parseFileType(std::string_view text) {
    for (const auto& [value, name] : fileTypeNames)
        if (name == text) return value;
    return FileType::unknown;
}

std::string_view wireName(FileErrorCode code) {
    for (const auto& [value, name] : fileErrorNames)
        if (value == code) return name;
    return "io_error";
}

std::optional<FileErrorCode> parseFileErrorCode(std::string_view text) {
    for (const auto& [value, name] : fileErrorNames)
        if (name == text) return value;
    return std::nullopt;
}

BackendError fileError(FileErrorCode code, std::string message) {
    return BackendError(std::string(wireName(code)), std::move(message));
}

std::optional<FileErrorCode> fileErrorCode(const std::exception& error) {
    if (const auto* backend = dynamic_cast<const BackendError*>(&error)) return parseFileErrorCode(backend->code());
    return std::nullopt;
}

std::optional<FileErrorCode> fileErrorCode(const std::exception_ptr& error) {
    try {
        if (error) std::rethrow_exception(error);
    } catch (const std::exception& caught) {
        return fileErrorCode(caught);
    } catch (...) {
    }
    return std::nullopt;
}

BackendError cancellationError() { return BackendError(std::string(cancelledCode), "cancelled"); }

bool isCancellation(const std::exception& error) {
    const auto* backend = dynamic_cast<const BackendError*>(&error);
    return backend && backend->code() == cancelledCode;
}

std::pair<FileEntry, std::vector<FileEntry>> listAll(FileBackend& backend, const std::string& path, bool hidden) {
    std::optional<std::string> cursor;
    std::optional<FileEntry> dir;
    std::vector<FileEntry> entries;
    do {
        FileListing page = backend.list(path, hidden, 1000, cursor);
        if (!dir) dir = std::move(page.dir);
        entries.insert(entries.end(), std::make_move_iterator(page.entries.begin()),
                       std::make_move_iterator(page.entries.end()));
        cursor = std::move(page.next);
    } while (cursor);
    return {std::move(*dir), std::move(entries)};
}

std::vector<SmallFileOutcome> FileBackend::writeBatch(const std::vector<SmallFileWrite>& files,
                                                      const platform::CancellationToken& cancel) {
    std::vector<SmallFileOutcome> outcomes(files.size());
    for (size_t index = 0; index < files.size(); ++index) {
        try {
            write(files[index].path, files[index].options, *files[index].source, {}, cancel);
        } catch (...) {
            outcomes[index].failure = std::current_exception();
        }
    }
    return outcomes;
}

std::string filePath(std::string_view directory, std::string_view name) {
    std::string path(directory);
    if (path.empty() || path.back() != '/') path += '/';
    path += name;
    return path;
}

} // namespace corvex
