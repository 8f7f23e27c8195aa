#pragma once

#include "CorvexKit/FileModel.h"
#include "CorvexKit/SessionCodec.h"

// The JSON text of the file values, the same both ways and on the daemon's wire. A name that
// isn't valid UTF-8 is written with replacement characters rather than failing the document.
namespace corvex {

template <>
std::string encodeText<FileEntry>(const FileEntry& value);
template <>
std::string encodeText<FileListing>(const FileListing& value);
template <>
std::string encodeText<FileSpace>(const FileSpace& value);

template <>
FileEntry decodeText<FileEntry>(std::string_view text);
template <>
FileListing decodeText<FileListing>(std::string_view text);
template <>
FileSpace decodeText<FileSpace>(std::string_view text);

} // namespace corvex
