#include <gtest/gtest.h>

#include <cerrno>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CorvexKit/FileService.h"
#include "CorvexKit/LocalFileBackend.h"
#include "Support/FileTestSupport.h"
#include "Support/ScratchDirectory.h"

using namespace corvex;
using corvex::testing::MemorySource;
using corvex::testing::patternBytes;
using corvex::testing::failureOf;
using corvex::testing::drain;
using corvex::testing::readBytes;
using corvex::testing::ScratchDirectory;
using corvex::testing::names;
using corvex::testing::stagingFiles;
using corvex::testing::writeBytes;

namespace {

FileWriteOptions resumable(const std::string& id, std::optional<std::string> source) {
    FileWriteOptions options;
    options.uploadID = id;
    options.source = std::move(source);
    return options;
}

// A small file system of its own, for the faults a shared disk can't be made to show.
class SmallMount {
public:
    SmallMount(const std::string& path, const char* options) : path_(path) {
        ::mkdir(path.c_str(), 0755);
        mounted_ = ::mount("tmpfs", path.c_str(), "tmpfs", 0, options) == 0;
    }
    ~SmallMount() {
        if (mounted_) ::umount2(path_.c_str(), MNT_DETACH);
    }
    bool mounted() const { return mounted_; }
    void makeReadOnly() { mounted_ = mounted_ && ::mount(nullptr, path_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0; }

private:
    std::string path_;
    bool mounted_ = false;
};

class LocalFiles : public ::testing::Test {
protected:
    ScratchDirectory scratch;
    LocalFileBackend backend;
    std::string at(const std::string& name) const { return scratch.file(name); }
};

} // namespace

// The file rules both backends share are held over a real daemon (DaemonFileLayer); these are
// the local backend's own edges.

TEST_F(LocalFiles, StatDescribesDanglingLinksTrailingSlashesAndHome) {
    writeBytes(at("notes.txt"), "hello\n");
    ::symlink("nowhere", at("dangling").c_str());
    FileEntry notes = backend.stat(at("notes.txt"));
    EXPECT_EQ(std::to_string(static_cast<int64_t>(notes.mtime * 1e9)).substr(0, 12), notes.mtimeNs.substr(0, 12));
    FileEntry dangling = backend.stat(at("dangling"));
    EXPECT_TRUE(dangling.link);
    EXPECT_EQ(dangling.type, FileType::other);
    EXPECT_TRUE(backend.stat(scratch.path() + "/").isDirectory());
    EXPECT_EQ(backend.stat("~").path, backend.homeDirectory());
}

TEST_F(LocalFiles, PathsMustBeAbsoluteAndWhole) {
    for (std::string bad : {std::string("relative/file"), std::string("../etc/passwd"), std::string(), std::string("/tmp/a\0b", 8)}) {
        BackendError error = failureOf([&] { backend.stat(bad); });
        EXPECT_EQ(error.code(), "bad_request") << bad;
    }
    EXPECT_EQ(failureOf([&] { backend.stat("x/y"); }).message(), "not an absolute path: x/y");
    EXPECT_EQ(failureOf([&] { backend.list(at("missing"), true, {}, {}); }).code(), "not_found");
}

TEST_F(LocalFiles, ListingsAreInByteOrderPagedByCursor) {
    for (std::string name : {"b", "a", "B", ".hidden", "\xc3\xa9t\xc3\xa9", "bad\xff"}) writeBytes(at(name), "x");
    EXPECT_EQ(names(backend.list(scratch.path(), false, {}, {})),
              (std::vector<std::string>{"B", "a", "b", "bad\xff", "\xc3\xa9t\xc3\xa9"}));

    FileListing first = backend.list(scratch.path(), false, 0, {});
    EXPECT_EQ(names(first), std::vector<std::string>{"B"});
    EXPECT_EQ(first.next, "B");
    FileListing second = backend.list(scratch.path(), false, 2, first.next);
    EXPECT_EQ(names(second), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(second.next, "b");
    FileListing past = backend.list(scratch.path(), false, 5, std::string("\xff"));
    EXPECT_TRUE(past.entries.empty());
    EXPECT_FALSE(past.next);
    EXPECT_EQ(backend.list(scratch.path(), false, 20000, {}).entries.size(), 5u);
}

TEST_F(LocalFiles, AttributesRenamesAndRemovalAtTheirEdges) {
    writeBytes(at("file"), "data");
    EXPECT_EQ(failureOf([&] { backend.mkdir(at("file"), true); }).code(), "exists");
    EXPECT_EQ(backend.setattr(at("file"), "-1500000000", std::nullopt).mtimeNs, "-1500000000");
    writeBytes(at("other"), "other");
    failureOf([&] { backend.rename(at("file"), at("other"), false); });
    EXPECT_EQ(readBytes(at("other")), "other") << "a refused rename leaves the target alone";

    // Removing a link to a folder removes the link, not what is in the folder.
    backend.mkdir(at("one/two"), true);
    ::symlink(at("one").c_str(), at("dirlink").c_str());
    backend.remove(at("dirlink"), true);
    EXPECT_TRUE(backend.stat(at("one/two")).isDirectory());

    FileSpace space = backend.statfs(scratch.path());
    EXPECT_LE(space.available, space.total);
}

TEST_F(LocalFiles, ReadsRaiseTinyChunksAndEndEmptyPastTheEnd) {
    std::string bytes = patternBytes(100000);
    writeBytes(at("data"), bytes);
    FileEntry entry = backend.stat(at("data"));

    FileReadOptions options;
    options.offset = 10;
    options.length = 50000;
    options.chunk = 1; // raised to a sane block size
    FileReadStream stream = backend.read(at("data"), options);
    std::optional<Bytes> first = stream.data();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->size(), 4096u);
    EXPECT_EQ(std::string(first->begin(), first->end()) + drain(stream.data), bytes.substr(10, 50000));

    options = FileReadOptions{};
    options.expectMtimeNs = "1";
    EXPECT_EQ(failureOf([&] { backend.read(at("data"), options); }).message(), at("data") + " changed");
    options.expectMtimeNs = entry.mtimeNs;
    options.offset = 200000;
    FileReadStream beyond = backend.read(at("data"), options);
    EXPECT_EQ(drain(beyond.data), "");

    FileReadStream finished = backend.read(at("data"), {});
    drain(finished.data);
    finished.cancel(); // after the end there is nothing to cancel
    EXPECT_EQ(finished.data(), std::nullopt);

    // Cancelled halfway, a read must not end as if it were whole.
    options = FileReadOptions{};
    options.chunk = 4096;
    FileReadStream cancelled = backend.read(at("data"), options);
    ASSERT_TRUE(cancelled.data());
    cancelled.cancel();
    EXPECT_TRUE(isCancellation(failureOf([&] { while (cancelled.data()) {} })));
}

TEST_F(LocalFiles, AWriteReportsFromZeroAndASourceThatFallsShortPlacesNothing) {
    MemorySource source(patternBytes(70000));
    FileWriteOptions options;
    options.size = 70000;
    std::vector<uint64_t> progress;
    backend.write(at("out"), options, source, [&](uint64_t bytes) { progress.push_back(bytes); });
    EXPECT_EQ(progress.front(), 0u);
    EXPECT_EQ(failureOf([&] { backend.write(at("nodir/out"), options, source, {}); }).code(), "not_found");

    MemorySource shorter("abc");
    BackendError wrongSize = failureOf([&] { backend.write(at("short"), options, shorter, {}); });
    EXPECT_EQ(wrongSize.code(), "io_error");
    EXPECT_EQ(wrongSize.message(), at("short") + ": expected 70000 bytes, got 3");
    EXPECT_EQ(failureOf([&] { backend.stat(at("short")); }).code(), "not_found");
}

TEST_F(LocalFiles, WritingThroughALinkReplacesTheFileBehindIt) {
    backend.mkdir(at("real"), false);
    writeBytes(at("real/file"), "old");
    ::symlink("real/file", at("link").c_str());
    ::symlink("missing", at("dangling").c_str());
    MemorySource source("new contents");
    FileWriteOptions options;
    options.overwrite = true;
    backend.write(at("link"), options, source, {});
    EXPECT_EQ(readBytes(at("real/file")), "new contents");
    EXPECT_TRUE(backend.stat(at("link")).link);
    EXPECT_TRUE(stagingFiles(scratch.path()).empty());
    BackendError dangling = failureOf([&] { backend.write(at("dangling"), options, source, {}); });
    EXPECT_EQ(dangling.code(), "not_found");
    EXPECT_EQ(dangling.message(), at("dangling") + " is a dangling link");
}

TEST_F(LocalFiles, ABrokenResumableWriteContinuesFromItsStagingFile) {
    std::string bytes = patternBytes(50000);
    MemorySource broken(bytes, "v1");
    broken.failAfter = 20000;
    FileWriteOptions options = resumable("abc", "v1");
    EXPECT_EQ(failureOf([&] { backend.write(at("out"), options, broken, {}); }).code(), "disconnected");
    EXPECT_EQ(readBytes(at(".out.corvex-part-abc")), bytes.substr(0, 20000));
    EXPECT_EQ(readBytes(at(".out.corvex-part-abc.source")), "v1");
    EXPECT_TRUE(backend.list(scratch.path(), false, {}, {}).entries.empty());
    EXPECT_EQ(backend.list(scratch.path(), true, {}, {}).entries.size(), 2u);

    MemorySource again(bytes, "v1");
    std::vector<uint64_t> progress;
    backend.write(at("out"), options, again, [&](uint64_t bytes) { progress.push_back(bytes); });
    EXPECT_EQ(again.openedAt, std::vector<uint64_t>{20000});
    EXPECT_EQ(progress.front(), 20000u);
    EXPECT_EQ(readBytes(at("out")), bytes);
    EXPECT_TRUE(stagingFiles(scratch.path()).empty());
}

TEST_F(LocalFiles, AResumeStartsOverUnlessTheSourceIsProvenTheSame) {
    auto stage = [&](const std::string& name, std::optional<std::string> fingerprint) {
        MemorySource broken(patternBytes(9000), fingerprint.value_or("none"));
        broken.failAfter = 3000;
        failureOf([&] { backend.write(at(name), resumable("id", fingerprint), broken, {}); });
    };
    auto resumeFrom = [&](const std::string& name, std::optional<std::string> fingerprint) {
        MemorySource source(patternBytes(9000), fingerprint.value_or("none"));
        backend.write(at(name), resumable("id", fingerprint), source, {});
        EXPECT_EQ(readBytes(at(name)), patternBytes(9000));
        return source.openedAt.at(0);
    };

    stage("other", "v1");
    EXPECT_EQ(resumeFrom("other", "v2"), 0u);

    stage("lost", "v1");
    ::unlink(at(".lost.corvex-part-id.source").c_str());
    EXPECT_EQ(resumeFrom("lost", "v1"), 0u);

    stage("nosource", std::nullopt);
    EXPECT_EQ(resumeFrom("nosource", std::nullopt), 3000u);

    // A staging file longer than the source promises is no beginning of it.
    stage("long", "v1");
    writeBytes(at(".long.corvex-part-id"), patternBytes(9500));
    MemorySource promised(patternBytes(9000), "v1");
    FileWriteOptions sized = resumable("id", "v1");
    sized.size = 9000;
    backend.write(at("long"), sized, promised, {});
    EXPECT_EQ(promised.openedAt, std::vector<uint64_t>{0});
    EXPECT_EQ(readBytes(at("long")), patternBytes(9000));

    // Without an upload id nothing is kept for later.
    MemorySource broken(patternBytes(9000));
    broken.failAfter = 3000;
    failureOf([&] { backend.write(at("plain"), FileWriteOptions{}, broken, {}); });
    EXPECT_TRUE(stagingFiles(scratch.path()).empty());
}

TEST_F(LocalFiles, ATargetThatAppearsDuringAWriteIsNotReplaced) {
    class AppearingSource final : public FileDataSource {
    public:
        explicit AppearingSource(std::string target) : target_(std::move(target)) {}
        uint64_t size() const override { return 5; }
        std::string fingerprint() const override { return "f"; }
        ByteBlocks open(uint64_t) override {
            return [this, done = false]() mutable -> std::optional<Bytes> {
                if (done) return std::nullopt;
                done = true;
                writeBytes(target_, "someone else's");
                return Bytes{'m', 'i', 'n', 'e', '!'};
            };
        }

    private:
        std::string target_;
    };
    AppearingSource source(at("out"));
    EXPECT_EQ(failureOf([&] { backend.write(at("out"), resumable("u", "f"), source, {}); }).code(), "exists");
    EXPECT_EQ(readBytes(at("out")), "someone else's");
    EXPECT_EQ(readBytes(at(".out.corvex-part-u")), "mine!");
}

TEST_F(LocalFiles, ACancelledWriteLeavesNoTarget) {
    platform::CancellationToken cancel;
    MemorySource source(patternBytes(10000), "f", 100);
    auto options = resumable("c", "f");
    BackendError error = failureOf([&] {
        backend.write(at("out"), options, source, [&](uint64_t bytes) { if (bytes >= 500) cancel.cancel(); }, cancel);
    });
    EXPECT_TRUE(isCancellation(error));
    EXPECT_EQ(failureOf([&] { backend.stat(at("out")); }).code(), "not_found");
    EXPECT_EQ(stagingFiles(scratch.path()).size(), 2u);
}

TEST_F(LocalFiles, AFullDiskAndAReadOnlyDiskAreToldApart) {
    SmallMount small(at("small"), "size=64k");
    if (!small.mounted()) GTEST_SKIP() << "no tmpfs can be mounted here";
    MemorySource big(patternBytes(1 << 20), "big", 65536);
    BackendError full = failureOf([&] { backend.write(at("small/big"), resumable("b", "big"), big, {}); });
    EXPECT_EQ(full.code(), "no_space");
    EXPECT_EQ(failureOf([&] { backend.stat(at("small/big")); }).code(), "not_found");

    backend.remove(at("small/.big.corvex-part-b"), false);
    small.makeReadOnly();
    if (!small.mounted()) GTEST_SKIP() << "the tmpfs can't be made read-only";
    MemorySource little("x");
    EXPECT_EQ(failureOf([&] { backend.write(at("small/little"), {}, little, {}); }).code(), "read_only");
    EXPECT_EQ(failureOf([&] { backend.mkdir(at("small/dir"), false); }).code(), "read_only");
}

TEST(FileServiceErrors, OSErrorsMapToFileCodes) {
    const std::vector<std::pair<int, std::string>> table{
        {EPERM, "permission_denied"}, {EACCES, "permission_denied"}, {ENOENT, "not_found"},   {EEXIST, "exists"},
        {EXDEV, "cross_device"},      {ENOTDIR, "not_a_directory"},  {EISDIR, "is_a_directory"}, {ENOSPC, "no_space"},
        {EDQUOT, "no_space"},         {EROFS, "read_only"},          {ENOTEMPTY, "not_empty"}, {EIO, "io_error"},
        {ELOOP, "io_error"},
    };
    for (const auto& [error, code] : table) EXPECT_EQ(FileService::posixError("/p", error).code(), code) << error;
    EXPECT_EQ(FileService::posixError("/p", ENOENT).message(), "/p: No such file or directory");
    auto translated = [](auto error) { return FileService::translate(std::make_exception_ptr(error), "/p"); };
    EXPECT_EQ(translated(std::system_error(ENOSPC, std::generic_category())).code(), "no_space");
    EXPECT_EQ(translated(BackendError("stalled", "s")).code(), "stalled");
    EXPECT_EQ(translated(std::runtime_error("odd")).code(), "io_error");
}
