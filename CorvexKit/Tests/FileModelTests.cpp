#include <gtest/gtest.h>

#include "CorvexKit/FileCodec.h"
#include "CorvexKit/FilePathText.h"
#include "CorvexKit/LocalFileBackend.h"
#include "Support/ScratchDirectory.h"

using namespace corvex;

namespace {

FileEntry sampleEntry() {
    FileEntry entry;
    entry.name = "notes.txt";
    entry.path = "/home/me/notes.txt";
    entry.type = FileType::file;
    entry.size = 12;
    entry.mtime = 1700000000.25;
    entry.mtimeNs = "1700000000250000001";
    entry.mode = 0644;
    return entry;
}

} // namespace

TEST(FileCodec, UnknownTypeDecodesAndTheListingStillDecodes) {
    std::string entry = R"({"name":"s","path":"/s","type":"socket","link":false,"size":0,"mtime":1,)"
                        R"("mtime_ns":"1000000000","mode":0,"hidden":false,"future":[1,2]})";
    EXPECT_EQ(decodeText<FileEntry>(entry).type, FileType::unknown);
    std::string listing = R"({"dir":)" + entry + R"(,"entries":[)" + entry + "," + entry + "]}";
    FileListing decoded = decodeText<FileListing>(listing);
    ASSERT_EQ(decoded.entries.size(), 2u);
    EXPECT_FALSE(decoded.next);
}

TEST(FileCodec, MissingRequiredKeysFailButMissingOptionalsDont) {
    FileEntry entry = sampleEntry();
    std::string text = encodeText(entry);
    auto without = [&](const std::string& key) {
        std::string copy = text;
        size_t at = copy.find("\"" + key + "\":");
        size_t end = copy.find_first_of(",}", copy.find(':', at));
        copy.erase(at, end - at + (copy[end] == ',' ? 1 : 0));
        if (copy[copy.size() - 2] == ',') copy.erase(copy.size() - 2, 1);
        return copy;
    };
    for (const char* key : {"link", "hidden", "mtime_ns"}) EXPECT_THROW(decodeText<FileEntry>(without(key)), DecodingError) << key;
    EXPECT_EQ(decodeText<FileEntry>(text).target, std::nullopt);
    EXPECT_THROW(decodeText<FileEntry>(R"({"name":1})"), DecodingError);
    EXPECT_THROW(decodeText<FileSpace>("not json"), DecodingError);
    EXPECT_THROW(decodeText<FileSpace>(R"({"total":-1,"free":0,"available":0})"), DecodingError);
}

TEST(FileCodec, NamesThatAreNotUTF8TravelReadableAndComeBackExact) {
    FileEntry entry = sampleEntry();
    entry.name = "caf\xe9 50%";
    entry.path = "/tmp/caf\xe9 50%";
    std::string text = encodeText(entry);
    EXPECT_NE(text.find("\"name\":\"caf\xEF\xBF\xBD 50%\""), std::string::npos) << text;
    EXPECT_NE(text.find(R"("path_raw":"/tmp/caf%E9 50%25")"), std::string::npos) << text;
    FileEntry decoded = decodeText<FileEntry>(text);
    EXPECT_EQ(decoded.path, entry.path);
    EXPECT_EQ(decoded.name, entry.name);

    FileListing listing{sampleEntry(), {}, std::string("b\xff")};
    EXPECT_EQ(decodeText<FileListing>(encodeText(listing)).next, listing.next);
    // A raw form that isn't one is refused rather than guessed at.
    std::string broken = text;
    broken.replace(broken.find("%E9"), 3, "%Z9");
    EXPECT_EQ(decodeText<FileEntry>(broken).path, "/tmp/caf\xEF\xBF\xBD 50%");
}

TEST(FilePathText, OnlyBytesOutsideValidUTF8AreEscaped) {
    struct Case {
        std::string bytes;
        bool valid;
    };
    const std::vector<Case> cases{
        {"plain/ascii", true},         {"caf\xC3\xA9", true},   {"\xF0\x9F\x98\x80", true},
        {"\xC3", false},               {"\xC0\xAF", false},     // cut short; overlong "/"
        {"\xED\xA0\x80", false},      {"\xF4\x90\x80\x80", false}, // a surrogate; past U+10FFFF
        {"\xFF", false},
    };
    for (const Case& item : cases) {
        EXPECT_EQ(isValidUTF8(item.bytes), item.valid) << item.bytes;
        std::optional<std::string> raw = rawPathText(item.bytes);
        EXPECT_EQ(raw.has_value(), !item.valid);
        if (raw) {
            EXPECT_EQ(pathFromRawText(*raw), item.bytes);
        }
        EXPECT_TRUE(isValidUTF8(readablePath(item.bytes)));
    }
    EXPECT_EQ(pathFromRawText("%4"), std::nullopt);
}

TEST(FileModel, WireStringsOfErrorCodesAndTypes) {
    const std::vector<std::string> wire{"not_found",  "exists",  "permission_denied", "not_a_directory", "is_a_directory",
                                        "not_empty",  "cross_device", "no_space", "read_only", "conflict",
                                        "changed",    "too_many_streams", "bad_request", "io_error"};
    for (size_t index = 0; index < wire.size(); ++index) {
        auto code = static_cast<FileErrorCode>(index);
        EXPECT_EQ(wireName(code), wire[index]);
        EXPECT_EQ(parseFileErrorCode(wire[index]), code);
        EXPECT_EQ(fileErrorCode(BackendError(wire[index], "m")), code);
    }
    EXPECT_EQ(fileErrorCode(BackendError("stalled", "Nothing moved")), std::nullopt);
    EXPECT_EQ(fileErrorCode(std::runtime_error("exists")), std::nullopt);
}

TEST(FileModel, FilePathJoinsWithOneSlash) {
    EXPECT_EQ(filePath("/", "a"), "/a");
    EXPECT_EQ(filePath("/x/", "a"), "/x/a");
}

TEST(FileModel, ListAllFollowsPagesToTheEnd) {
    corvex::testing::ScratchDirectory scratch;
    LocalFileBackend backend;
    EXPECT_TRUE(listAll(backend, scratch.path(), true).second.empty());

    for (int index = 0; index < 2500; ++index) std::ofstream(scratch.file("f" + std::to_string(10000 + index)));
    auto [again, entries] = listAll(backend, scratch.path(), false);
    ASSERT_EQ(entries.size(), 2500u);
    EXPECT_EQ(entries.front().name, "f10000");
    EXPECT_EQ(entries.back().name, "f12499");
}
