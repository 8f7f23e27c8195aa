// The wire form of the file methods and of the file streams' messages.

#include "CorvexKit/ProtocolJSON.h"

#include "CorvexKit/FilePathText.h"

#include <limits>

namespace corvex::protocol {

using nlohmann::json;

namespace {

const json* find(const json& params, const char* key) {
    if (!params.is_object()) return nullptr;
    auto found = params.find(key);
    return found == params.end() || found->is_null() ? nullptr : &*found;
}

[[noreturn]] void wrong(const char* key, const char* expected) {
    throw DecodingError(std::string("param \"") + key + "\" must be " + expected);
}

std::optional<uint64_t> optionalUnsigned(const json& params, const char* key) {
    const json* value = find(params, key);
    if (!value) return std::nullopt;
    if (value->is_number_unsigned()) return value->get<uint64_t>();
    if (value->is_number_integer() && value->get<int64_t>() >= 0) return static_cast<uint64_t>(value->get<int64_t>());
    wrong(key, "an unsigned integer");
}

std::optional<int> optionalInt(const json& params, const char* key) {
    const json* value = find(params, key);
    if (!value) return std::nullopt;
    if (!value->is_number_integer()) wrong(key, "an integer");
    if (value->is_number_unsigned() && value->get<uint64_t>() > uint64_t(std::numeric_limits<int>::max()))
        wrong(key, "an integer");
    auto wide = value->get<int64_t>();
    if (wide < std::numeric_limits<int>::min() || wide > std::numeric_limits<int>::max()) wrong(key, "an integer");
    return static_cast<int>(wide);
}

std::optional<std::string> optionalString(const json& params, const char* key) {
    const json* value = find(params, key);
    if (!value) return std::nullopt;
    if (!value->is_string()) wrong(key, "a string");
    return value->get<std::string>();
}

std::optional<bool> optionalBool(const json& params, const char* key) {
    const json* value = find(params, key);
    if (!value) return std::nullopt;
    if (!value->is_boolean()) wrong(key, "a boolean");
    return value->get<bool>();
}

template <typename T>
T required(std::optional<T> value, const char* key) {
    if (!value) throw DecodingError(std::string("missing ") + key);
    return *value;
}

// A path that isn't valid text comes exact under "KEY_raw", beside its readable form.
std::string requiredPath(const json& params, const char* key = "path") {
    std::string rawKey = std::string(key) + "_raw";
    if (std::optional<std::string> raw = optionalString(params, rawKey.c_str())) {
        if (std::optional<std::string> bytes = pathFromRawText(*raw)) return *bytes;
        wrong(rawKey.c_str(), "a path with %XX escapes");
    }
    return required(optionalString(params, key), key);
}

// Adds the exact form of each path param that isn't valid text.
json withRawPaths(json out) {
    for (const char* key : {"path", "from", "to", "cursor"}) {
        auto found = out.find(key);
        if (found == out.end() || !found->is_string()) continue;
        const std::string& bytes = found->get_ref<const std::string&>();
        if (std::optional<std::string> raw = rawPathText(bytes)) {
            *found = readablePath(bytes);
            out[std::string(key) + "_raw"] = *raw;
        }
    }
    return out;
}

template <typename T>
void putOptional(json& out, const char* key, const std::optional<T>& value) {
    if (value) out[key] = *value;
}

} // namespace

json encodeParams(const FsStat& c) { return withRawPaths(json{{"path", c.path}}); }
void decodeParams(const json& j, FsStat& c) { c.path = requiredPath(j); }

json encodeParams(const FsList& c) {
    json out{{"path", c.path}, {"hidden", c.hidden}};
    putOptional(out, "limit", c.limit);
    putOptional(out, "cursor", c.cursor);
    return withRawPaths(std::move(out));
}
void decodeParams(const json& j, FsList& c) {
    c.path = requiredPath(j);
    c.hidden = optionalBool(j, "hidden").value_or(false);
    c.limit = optionalInt(j, "limit");
    if (find(j, "cursor") || find(j, "cursor_raw")) c.cursor = requiredPath(j, "cursor");
}

json encodeParams(const FsMkdir& c) { return withRawPaths(json{{"path", c.path}, {"parents", c.parents}}); }
void decodeParams(const json& j, FsMkdir& c) {
    c.path = requiredPath(j);
    c.parents = optionalBool(j, "parents").value_or(false);
}

json encodeParams(const FsSetattr& c) {
    json out{{"path", c.path}};
    putOptional(out, "mtime_ns", c.mtimeNs);
    putOptional(out, "mode", c.mode);
    return withRawPaths(std::move(out));
}
void decodeParams(const json& j, FsSetattr& c) {
    c.path = requiredPath(j);
    c.mtimeNs = optionalString(j, "mtime_ns");
    c.mode = optionalInt(j, "mode");
}

json encodeParams(const FsRename& c) {
    return withRawPaths(json{{"from", c.from}, {"to", c.to}, {"overwrite", c.overwrite}});
}
void decodeParams(const json& j, FsRename& c) {
    c.from = requiredPath(j, "from");
    c.to = requiredPath(j, "to");
    c.overwrite = optionalBool(j, "overwrite").value_or(false);
}

json encodeParams(const FsRemove& c) { return withRawPaths(json{{"path", c.path}, {"recursive", c.recursive}}); }
void decodeParams(const json& j, FsRemove& c) {
    c.path = requiredPath(j);
    c.recursive = optionalBool(j, "recursive").value_or(false);
}

json encodeParams(const FsStatfs& c) { return withRawPaths(json{{"path", c.path}}); }
void decodeParams(const json& j, FsStatfs& c) { c.path = requiredPath(j); }

json encodeParams(const FsRead& c) {
    const FileReadOptions& o = c.options;
    json out{{"path", c.path}, {"offset", o.offset}, {"chunk", o.chunk}, {"window", o.window}};
    putOptional(out, "length", o.length);
    putOptional(out, "expect_size", o.expectSize);
    putOptional(out, "expect_mtime_ns", o.expectMtimeNs);
    return withRawPaths(std::move(out));
}
void decodeParams(const json& j, FsRead& c) {
    FileReadOptions& o = c.options;
    c.path = requiredPath(j);
    o.offset = optionalUnsigned(j, "offset").value_or(0);
    o.length = optionalUnsigned(j, "length");
    o.chunk = optionalInt(j, "chunk").value_or(defaultFileChunk);
    o.window = optionalInt(j, "window").value_or(defaultFileWindow);
    o.expectSize = optionalUnsigned(j, "expect_size");
    o.expectMtimeNs = optionalString(j, "expect_mtime_ns");
}

json encodeParams(const FsWrite& c) {
    const FileWriteOptions& o = c.options;
    json out{{"path", c.path}, {"overwrite", o.overwrite}};
    // Left out at their defaults, as the reader assumes: a batch repeats them for every file.
    if (o.chunk != defaultFileChunk) out["chunk"] = o.chunk;
    if (o.window != defaultFileWindow) out["window"] = o.window;
    putOptional(out, "size", o.size);
    putOptional(out, "expect_mtime_ns", o.expectMtimeNs);
    putOptional(out, "mode", o.mode);
    putOptional(out, "mtime_ns", o.mtimeNs);
    putOptional(out, "upload_id", o.uploadID);
    putOptional(out, "source", o.source);
    putOptional(out, "put", c.put);
    if (const std::optional<LocalSource>& local = c.localSource) {
        out["local_source"] = withRawPaths(json{{"path", local->path}, {"boot_id", local->bootID},
                                                {"dev", local->device}, {"ino", local->inode},
                                                {"size", local->size}, {"mtime_ns", local->mtimeNs}});
    }
    return withRawPaths(std::move(out));
}
void decodeParams(const json& j, FsWrite& c) {
    FileWriteOptions& o = c.options;
    c.path = requiredPath(j);
    o.overwrite = optionalBool(j, "overwrite").value_or(false);
    o.chunk = optionalInt(j, "chunk").value_or(defaultFileChunk);
    o.window = optionalInt(j, "window").value_or(defaultFileWindow);
    o.size = optionalUnsigned(j, "size");
    o.expectMtimeNs = optionalString(j, "expect_mtime_ns");
    o.mode = optionalInt(j, "mode");
    o.mtimeNs = optionalString(j, "mtime_ns");
    o.uploadID = optionalString(j, "upload_id");
    o.source = optionalString(j, "source");
    c.put = optionalUnsigned(j, "put");
    if (const json* local = find(j, "local_source")) {
        if (!local->is_object()) wrong("local_source", "an object");
        c.localSource = LocalSource{requiredPath(*local), required(optionalString(*local, "boot_id"), "boot_id"),
                                    required(optionalUnsigned(*local, "dev"), "dev"),
                                    required(optionalUnsigned(*local, "ino"), "ino"),
                                    required(optionalUnsigned(*local, "size"), "size"),
                                    required(optionalString(*local, "mtime_ns"), "mtime_ns")};
    }
}

json encodeParams(const FsPutBatch& c) {
    json files = json::array();
    for (const FsWrite& file : c.files) files.push_back(encodeParams(file));
    return json{{"files", std::move(files)}};
}

void decodeParams(const json& j, FsPutBatch& c) {
    const json* files = find(j, "files");
    if (!files || !files->is_array()) wrong("files", "an array");
    c.files.reserve(files->size());
    for (const json& file : *files) decodeParams(file, c.files.emplace_back());
}

json encodeParams(const FsCancel& c) { return json{{"stream", c.stream}}; }
void decodeParams(const json& j, FsCancel& c) { c.stream = required(optionalUnsigned(j, "stream"), "stream"); }

json encodeResultValue(const FileReadOpened& opened) {
    json out{{"size", opened.size}, {"mtime_ns", opened.mtimeNs}};
    putOptional(out, "stream", opened.stream);
    putOptional(out, "offset", opened.offset);
    return out;
}

json encodeResultValue(const FileWriteOpened& opened) {
    json out{{"offset", opened.offset}};
    putOptional(out, "stream", opened.stream);
    putOptional(out, "window", opened.window);
    if (opened.entry) out["entry"] = toJSON(*opened.entry);
    return out;
}

json encodeResultValue(const FilePutOutcomes& outcomes) {
    json files = json::array();
    for (const FilePutOutcome& file : outcomes.files) {
        if (!file.code.empty()) {
            files.push_back(json{{"code", file.code}, {"message", file.message}});
            continue;
        }
        json placed{{"offset", file.offset}};
        if (file.entry) placed["entry"] = toJSON(*file.entry);
        files.push_back(std::move(placed));
    }
    return json{{"files", std::move(files)}};
}

// A file without an entry or an error code is a broken reply, for the caller to report.
void decodeResultValue(const json& result, FilePutOutcomes& out) {
    const json* files = find(result, "files");
    if (!files || !files->is_array()) throw DecodingError("a batch's reply without its files");
    out.files.reserve(files->size());
    for (const json& file : *files) {
        FilePutOutcome& outcome = out.files.emplace_back();
        if (std::optional<std::string> code = optionalString(file, "code")) {
            outcome.code = *code;
            outcome.message = optionalString(file, "message").value_or("file transfer failed");
            continue;
        }
        outcome.offset = optionalUnsigned(file, "offset").value_or(0);
        if (const json* entry = find(file, "entry")) outcome.entry = decodeJSON<FileEntry>(*entry);
    }
}

// The opening replies are read leniently: a missing stream is the caller's "internal" error.
void decodeResultValue(const json& result, FileReadOpened& out) {
    out.stream = fileStreamID(result);
    out.offset = optionalUnsigned(result, "offset");
    out.size = optionalUnsigned(result, "size").value_or(0);
    out.mtimeNs = optionalString(result, "mtime_ns").value_or("");
}

void decodeResultValue(const json& result, FileWriteOpened& out) {
    out.stream = fileStreamID(result);
    out.offset = optionalUnsigned(result, "offset").value_or(0);
    out.window = optionalUnsigned(result, "window");
    if (auto entry = result.find("entry"); entry != result.end()) out.entry = decodeJSON<FileEntry>(*entry);
}

json encodeFileMessage(const FsAck& ack) { return json{{"stream", ack.stream}, {"offset", ack.offset}}; }

json encodeFileMessage(const FsDone& done) {
    json out{{"stream", done.stream}};
    if (done.cancelled) out["cancelled"] = true;
    if (done.entry) out["entry"] = toJSON(*done.entry);
    return out;
}

json encodeFileMessage(const FsError& error) {
    return json{{"stream", error.stream}, {"code", error.code}, {"message", error.message}};
}

std::optional<uint64_t> fileStreamID(const json& data) {
    try {
        return optionalUnsigned(data, "stream");
    } catch (const DecodingError&) {
        return std::nullopt;
    }
}

std::optional<FsAck> decodeFsAck(const json& data) {
    auto stream = fileStreamID(data);
    if (!stream) return std::nullopt;
    try {
        auto offset = optionalUnsigned(data, "offset");
        if (!offset) return std::nullopt;
        return FsAck{*stream, *offset};
    } catch (const DecodingError&) {
        return std::nullopt;
    }
}

std::optional<FsDone> decodeFsDone(const json& data) {
    auto stream = fileStreamID(data);
    if (!stream) return std::nullopt;
    FsDone done{*stream, std::nullopt, false};
    if (auto cancelled = data.find("cancelled"); cancelled != data.end() && cancelled->is_boolean())
        done.cancelled = cancelled->get<bool>();
    if (done.cancelled) return done;
    if (auto entry = data.find("entry"); entry != data.end()) {
        try {
            done.entry = decodeJSON<FileEntry>(*entry);
        } catch (const std::exception&) {
            done.entry.reset();
        }
    }
    return done;
}

std::optional<FsError> decodeFsError(const json& data) {
    auto stream = fileStreamID(data);
    if (!stream) return std::nullopt;
    auto text = [&](const char* key, const char* fallback) {
        auto found = data.find(key);
        return found != data.end() && found->is_string() ? found->get<std::string>() : std::string(fallback);
    };
    return FsError{*stream, text("code", "io_error"), text("message", "file transfer failed")};
}

} // namespace corvex::protocol
