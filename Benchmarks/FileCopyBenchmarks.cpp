// Local copies through the transfer engine, beside plain `cp` of the same files in the same run:
// one big file, and a tree of many small ones. Sizes: CORVEX_BENCH_BIG_MIB (default 1024),
// CORVEX_BENCH_TREE_FILES (default 20000, each 0 to 64 KiB). The files are made once in a
// scratch folder under TMPDIR and removed at the end.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <unistd.h>

#include "CorvexKit/FileTransfer.h"
#include "CorvexKit/LocalFileBackend.h"
#include "Platform/System.h"

namespace {

namespace fs = std::filesystem;
using namespace corvex;

size_t environmentNumber(const char* name, size_t fallback) {
    std::string text = platform::environmentValue(name);
    return text.empty() ? fallback : std::stoull(text);
}

class Corpus {
public:
    Corpus() {
        root_ = fs::path(platform::temporaryDirectory()) / ("corvex-filecopy-" + std::to_string(::getpid()));
        fs::create_directories(root_ / "tree");
        std::mt19937_64 random(42);
        std::string block(1 << 20, '\0');
        for (char& byte : block) byte = static_cast<char>(random());

        std::ofstream big(bigFile(), std::ios::binary);
        for (size_t mib = 0; mib < environmentNumber("CORVEX_BENCH_BIG_MIB", 1024); ++mib)
            big.write(block.data(), static_cast<std::streamsize>(block.size()));
        big.close();
        bigBytes_ = fs::file_size(bigFile());

        size_t files = environmentNumber("CORVEX_BENCH_TREE_FILES", 20000);
        for (size_t index = 0; index < files; ++index) {
            fs::path directory = tree() / ("d" + std::to_string(index / 500));
            if (index % 500 == 0) fs::create_directories(directory);
            size_t size = random() % (64 * 1024 + 1);
            std::ofstream(directory / ("f" + std::to_string(index)), std::ios::binary)
                .write(block.data() + (random() % 1024), static_cast<std::streamsize>(size));
            treeBytes_ += size;
        }
        treeFiles_ = files;
    }
    ~Corpus() { fs::remove_all(root_); }

    fs::path bigFile() const { return root_ / "big"; }
    fs::path tree() const { return root_ / "tree"; }
    fs::path target() const { return root_ / "target"; }
    uint64_t bigBytes() const { return bigBytes_; }
    uint64_t treeBytes() const { return treeBytes_; }
    size_t treeFiles() const { return treeFiles_; }

    void freshTarget() const {
        fs::remove_all(target());
        fs::create_directories(target());
    }

private:
    fs::path root_;
    uint64_t bigBytes_ = 0;
    uint64_t treeBytes_ = 0;
    size_t treeFiles_ = 0;
};

Corpus& corpus() {
    static Corpus shared;
    return shared;
}

void transferLocally(const fs::path& source, const fs::path& into) {
    auto local = std::make_shared<LocalFileBackend>();
    FileTransfer transfer(local, local);
    transfer.copy({source.string()}, into.string(), FileTransfer::Conflict::fail);
}

void runCp(const fs::path& source, const fs::path& into) {
    std::string command = "cp -r '" + source.string() + "' '" + into.string() + "/'";
    if (std::system(command.c_str()) != 0) throw std::runtime_error("cp failed");
}

template <void (*copy)(const fs::path&, const fs::path&)>
void bigFile(benchmark::State& state) {
    const Corpus& files = corpus();
    for (auto _ : state) {
        state.PauseTiming();
        files.freshTarget();
        state.ResumeTiming();
        copy(files.bigFile(), files.target());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * files.bigBytes()));
}

template <void (*copy)(const fs::path&, const fs::path&)>
void smallFiles(benchmark::State& state) {
    const Corpus& files = corpus();
    for (auto _ : state) {
        state.PauseTiming();
        files.freshTarget();
        state.ResumeTiming();
        copy(files.tree(), files.target());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * files.treeBytes()));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * files.treeFiles()));
}

BENCHMARK(bigFile<transferLocally>)->Name("FileCopy/BigFile/FileTransfer")->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(bigFile<runCp>)->Name("FileCopy/BigFile/cp")->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(smallFiles<transferLocally>)->Name("FileCopy/Tree/FileTransfer")->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(smallFiles<runCp>)->Name("FileCopy/Tree/cp")->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
