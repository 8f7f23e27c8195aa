// A batch of small files from this machine over a real corvexd: the client reads them itself,
// straight into the batch, and must refuse one that is no longer the version its walk found.

#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>

#include "CorvexKit/CorvexdBackendFiles.h"
#include "CorvexKit/FileTransfer.h"
#include "CorvexKit/LocalFileBackend.h"
#include "CorvexKit/Tests/Support/FileTestSupport.h"
#include "Support/DaemonHarness.h"

using namespace corvex;
using namespace corvexd::testing;
using corvex::testing::patternBytes;
using corvex::testing::readBytes;
using corvex::testing::writeBytes;
namespace fsys = std::filesystem;

namespace {

// A file here as a walk found it; its bytes are only ever read by the writer itself.
class FoundFile final : public FileDataSource {
public:
    explicit FoundFile(FileEntry entry) : entry_(std::move(entry)) {}
    uint64_t size() const override { return entry_.size; }
    std::string fingerprint() const override { return std::to_string(entry_.size) + ":" + entry_.mtimeNs; }
    ByteBlocks open(uint64_t offset) override { return LocalFileSource(entry_.path).open(offset); }
    std::optional<LocalFile> localFile() const override { return LocalFile{entry_.path, entry_.size, entry_.mtimeNs}; }

private:
    FileEntry entry_;
};

FileWriteOptions optionsFor(const FileDataSource& source, const std::string& target) {
    FileWriteOptions options;
    options.size = source.size();
    options.source = source.fingerprint();
    options.uploadID = FileTransfer::uploadID(target, *options.source);
    return options;
}

std::optional<std::string> failureCode(const SmallFileOutcome& outcome) {
    if (!outcome.failure) return std::nullopt;
    try {
        std::rethrow_exception(outcome.failure);
    } catch (const BackendError& error) {
        return error.code();
    } catch (...) {
        return "not a BackendError";
    }
}

} // namespace

TEST(FileBatchFromHere, AFileThatChangedSinceTheWalkIsRefusedAndTheOthersArePlaced) {
    DaemonHarness daemon;
    daemon.serve();
    auto files = CorvexdFileBackend::attach(daemon.connect("files"));
    const auto& scratch = daemon.scratch();
    fsys::create_directories(scratch.file("to"));

    const std::string kept = patternBytes(5000, 1);
    writeBytes(scratch.file("kept"), kept);
    // Rewritten after the walk with the same size: only its time tells the versions apart.
    writeBytes(scratch.file("rewritten"), patternBytes(3000, 2));
    struct Row {
        const char* name;
        bool rewritten;
        std::optional<std::string> code;
    };
    const Row rows[] = {{"kept", false, std::nullopt}, {"rewritten", true, "changed"}};
    std::vector<std::unique_ptr<FoundFile>> sources;
    std::vector<SmallFileWrite> writes;
    for (const Row& row : rows) {
        sources.push_back(std::make_unique<FoundFile>(LocalFileBackend().stat(scratch.file(row.name))));
        const std::string target = scratch.file(std::string("to/") + row.name);
        writes.push_back(SmallFileWrite{target, optionsFor(*sources.back(), target), sources.back().get()});
    }
    writeBytes(scratch.file("rewritten"), patternBytes(3000, 3));
    struct timespec later[2] = {{0, UTIME_OMIT}, {2000000000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, scratch.file("rewritten").c_str(), later, 0), 0);

    ASSERT_TRUE(files->writeBatchLimits(LocalFileBackend())) << "files from here go in batches";
    std::vector<SmallFileOutcome> outcomes = files->writeBatch(writes, {});
    ASSERT_EQ(outcomes.size(), 2u);
    for (size_t index = 0; index < outcomes.size(); ++index) {
        SCOPED_TRACE(rows[index].name);
        EXPECT_EQ(failureCode(outcomes[index]), rows[index].code);
        EXPECT_EQ(fsys::exists(writes[index].path), !rows[index].rewritten) << "nothing of another version in place";
    }
    EXPECT_EQ(readBytes(scratch.file("to/kept")), kept);
}
