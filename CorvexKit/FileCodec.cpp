#include "CorvexKit/FileCodecJSON.h"

#include <cmath>

#include "CorvexKit/FilePathText.h"

namespace corvex {

using nlohmann::json;

namespace {

const json& required(const json& object, const char* key) {
    if (!object.is_object()) throw DecodingError("expected an object");
    auto found = object.find(key);
    if (found == object.end()) throw DecodingError(std::string("missing key ") + key);
    return *found;
}

std::string requiredString(const json& object, const char* key) {
    const json& value = required(object, key);
    if (!value.is_string()) throw DecodingError(std::string(key) + " is not a string");
    return value.get<std::string>();
}

bool requiredBool(const json& object, const char* key) {
    const json& value = required(object, key);
    if (!value.is_boolean()) throw DecodingError(std::string(key) + " is not a boolean");
    return value.get<bool>();
}

uint64_t requiredUnsigned(const json& object, const char* key) {
    const json& value = required(object, key);
    if (value.is_number_unsigned()) return value.get<uint64_t>();
    if (value.is_number_integer() && value.get<int64_t>() >= 0) return static_cast<uint64_t>(value.get<int64_t>());
    throw DecodingError(std::string(key) + " is not an unsigned number");
}

double requiredDouble(const json& object, const char* key) {
    const json& value = required(object, key);
    if (!value.is_number()) throw DecodingError(std::string(key) + " is not a number");
    return value.get<double>();
}

int requiredInt(const json& object, const char* key) {
    const json& value = required(object, key);
    if (!value.is_number_integer()) throw DecodingError(std::string(key) + " is not an integer");
    return value.get<int>();
}

// An optional key may be absent or null; present with the wrong type fails the document.
template <typename T>
std::optional<T> optionalValue(const json& object, const char* key, bool (json::*isType)() const noexcept) {
    auto found = object.find(key);
    if (found == object.end() || found->is_null()) return std::nullopt;
    if (!((*found).*isType)()) throw DecodingError(std::string(key) + " has the wrong type");
    return found->get<T>();
}

std::string dumpText(const json& value) { return value.dump(-1, ' ', false, json::error_handler_t::replace); }

json parseText(std::string_view text) {
    json parsed = json::parse(text, nullptr, false);
    if (parsed.is_discarded()) throw DecodingError("not JSON");
    return parsed;
}

} // namespace

json toJSON(const FileEntry& value) {
    // Bytes that aren't text are shown readable, and the path travels exact beside them.
    json object{
        {"name", readablePath(value.name)},
        {"path", readablePath(value.path)},
        {"type", wireName(value.type)},
        {"link", value.link},
        {"size", value.size},
        {"mtime", std::isfinite(value.mtime) ? value.mtime : 0.0},
        {"mtime_ns", value.mtimeNs},
        {"mode", value.mode},
        {"hidden", value.hidden},
    };
    if (value.target) object["target"] = readablePath(*value.target);
    if (std::optional<std::string> raw = value.pathRaw ? value.pathRaw : rawPathText(value.path))
        object["path_raw"] = *raw;
    if (value.text) object["text"] = *value.text;
    return object;
}

json toJSON(const FileListing& value) {
    json entries = json::array();
    for (const FileEntry& entry : value.entries) entries.push_back(toJSON(entry));
    json object{{"dir", toJSON(value.dir)}, {"entries", std::move(entries)}};
    if (value.next) object["next"] = readablePath(*value.next);
    if (std::optional<std::string> raw = value.next ? rawPathText(*value.next) : std::nullopt) object["next_raw"] = *raw;
    return object;
}

json toJSON(const FileSpace& value) {
    return json{{"total", value.total}, {"free", value.free}, {"available", value.available}};
}

template <>
FileEntry decodeJSON<FileEntry>(const json& object) {
    FileEntry entry;
    entry.name = requiredString(object, "name");
    entry.path = requiredString(object, "path");
    entry.type = parseFileType(requiredString(object, "type"));
    entry.link = requiredBool(object, "link");
    entry.target = optionalValue<std::string>(object, "target", &json::is_string);
    entry.size = requiredUnsigned(object, "size");
    entry.mtime = requiredDouble(object, "mtime");
    entry.mtimeNs = requiredString(object, "mtime_ns");
    entry.mode = requiredInt(object, "mode");
    entry.hidden = requiredBool(object, "hidden");
    entry.pathRaw = optionalValue<std::string>(object, "path_raw", &json::is_string);
    // Such an entry is reached by its exact bytes, and named by them.
    if (std::optional<std::string> bytes = entry.pathRaw ? pathFromRawText(*entry.pathRaw) : std::nullopt) {
        entry.path = *bytes;
        if (entry.name != "/") entry.name = bytes->substr(bytes->find_last_of('/') + 1);
    }
    entry.text = optionalValue<bool>(object, "text", &json::is_boolean);
    return entry;
}

template <>
FileListing decodeJSON<FileListing>(const json& object) {
    FileListing listing;
    listing.dir = decodeJSON<FileEntry>(required(object, "dir"));
    const json& entries = required(object, "entries");
    if (!entries.is_array()) throw DecodingError("entries is not an array");
    listing.entries.reserve(entries.size());
    for (const json& entry : entries) listing.entries.push_back(decodeJSON<FileEntry>(entry));
    listing.next = optionalValue<std::string>(object, "next", &json::is_string);
    if (auto raw = optionalValue<std::string>(object, "next_raw", &json::is_string))
        if (std::optional<std::string> bytes = pathFromRawText(*raw)) listing.next = *bytes;
    return listing;
}

template <>
FileSpace decodeJSON<FileSpace>(const json& object) {
    return FileSpace{requiredUnsigned(object, "total"), requiredUnsigned(object, "free"),
                     requiredUnsigned(object, "available")};
}

template <>
std::string encodeText<FileEntry>(const FileEntry& value) {
    return dumpText(toJSON(value));
}
template <>
std::string encodeText<FileListing>(const FileListing& value) {
    return dumpText(toJSON(value));
}
template <>
std::string encodeText<FileSpace>(const FileSpace& value) {
    return dumpText(toJSON(value));
}

template <>
FileEntry decodeText<FileEntry>(std::string_view text) {
    return decodeJSON<FileEntry>(parseText(text));
}
template <>
FileListing decodeText<FileListing>(std::string_view text) {
    return decodeJSON<FileListing>(parseText(text));
}
template <>
FileSpace decodeText<FileSpace>(std::string_view text) {
    return decodeJSON<FileSpace>(parseText(text));
}

} // namespace corvex
