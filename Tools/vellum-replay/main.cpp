#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "Tools/vellum-replay/Replay.h"

namespace {

int usage() {
    std::fprintf(stderr, "usage: vellum-replay [--cols N] [--rows N] [--scrollback N] [--chunk N] [--cells] FILE|-\n");
    return 2;
}

std::optional<long> number(const char* text, long minimum) {
    char* end = nullptr;
    long value = std::strtol(text, &end, 10);
    if (end == text || *end != 0 || value < minimum || value > 1'000'000) return std::nullopt;
    return value;
}

// The whole input at once. A regular file is mapped rather than read: the terminal reads the
// page cache in place, with no copy and no fresh pages to zero, which is a tenth of the replay
// on large files. Anything else (a pipe, a terminal) is read in growing blocks; a stream
// iterator here costs as much as the replay.
class Input {
public:
    Input() = default;
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;
    ~Input() {
        if (mapped) munmap(mapped, size);
    }

    std::string_view view() const { return {mapped ? static_cast<const char*>(mapped) : buffer.get(), size}; }

    static std::unique_ptr<Input> read(int fd) {
        auto input = std::make_unique<Input>();
        struct stat info {};
        bool regular = fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
        if (regular && info.st_size > 0) {
            void* at = mmap(nullptr, size_t(info.st_size), PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
            if (at != MAP_FAILED) {
                input->mapped = at;
                input->size = size_t(info.st_size);
                return input;
            }
        }
        return input->readBlocks(fd, regular ? size_t(info.st_size) + 4096 : size_t(1) << 20) ? std::move(input) : nullptr;
    }

private:
    bool readBlocks(int fd, size_t capacity) {
        buffer = std::make_unique_for_overwrite<char[]>(capacity);
        while (true) {
            if (capacity - size < 4096) {
                auto grown = std::make_unique_for_overwrite<char[]>(capacity * 2);
                std::memcpy(grown.get(), buffer.get(), size);
                buffer = std::move(grown);
                capacity *= 2;
            }
            ssize_t got = ::read(fd, buffer.get() + size, capacity - size);
            if (got < 0) return false;
            if (got == 0) return true;
            size += static_cast<size_t>(got);
        }
    }

    void* mapped = nullptr;
    std::unique_ptr<char[]> buffer;
    size_t size = 0;
};

} // namespace

int main(int argc, char** argv) {
    vellum::replay::ReplayOptions options;
    const char* path = nullptr;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto next = [&](long minimum) -> std::optional<long> { return i + 1 < argc ? number(argv[++i], minimum) : std::nullopt; };
        if (arg == "--cells") {
            options.cells = true;
        } else if (arg == "--cols" || arg == "--rows" || arg == "--scrollback" || arg == "--chunk") {
            auto value = next(arg == "--scrollback" ? 0 : 1);
            if (!value) return usage();
            if (arg == "--cols") options.cols = int(*value);
            else if (arg == "--rows") options.rows = int(*value);
            else if (arg == "--scrollback") options.scrollback = int(*value);
            else options.chunk = size_t(*value);
        } else if (!path && (arg == "-" || !arg.starts_with("--"))) {
            path = argv[i];
        } else {
            return usage();
        }
    }
    if (!path) return usage();
    int fd = std::strcmp(path, "-") == 0 ? STDIN_FILENO : open(path, O_RDONLY | O_CLOEXEC);
    std::unique_ptr<Input> bytes = fd >= 0 ? Input::read(fd) : nullptr;
    if (!bytes) {
        std::fprintf(stderr, "vellum-replay: cannot read %s\n", path);
        return 1;
    }
    std::cout << vellum::replay::replay(bytes->view(), options) << "\n";
    return 0;
}
