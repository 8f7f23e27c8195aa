#pragma once

// Only codec translation units include this header: it brings in the JSON library.

#include "CorvexKit/FileCodec.h"
#include "CorvexKit/SessionCodecJSON.h"

namespace corvex {

nlohmann::json toJSON(const FileEntry& value);
nlohmann::json toJSON(const FileListing& value);
nlohmann::json toJSON(const FileSpace& value);

template <>
FileEntry decodeJSON<FileEntry>(const nlohmann::json& json);
template <>
FileListing decodeJSON<FileListing>(const nlohmann::json& json);
template <>
FileSpace decodeJSON<FileSpace>(const nlohmann::json& json);

} // namespace corvex
