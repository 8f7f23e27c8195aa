#include <fcntl.h>
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

// The whole input in one buffer, not zeroed first: a regular file is read at its size in one
// call, anything else in growing blocks. A stream iterator here costs as much as the replay.
struct Input {
    std::unique_ptr<char[]> data;
    size_t size = 0;
    std::string_view view() const { return {data.get(), size}; }
};

std::optional<Input> readAll(int fd) {
    struct stat info {};
    size_t capacity = 1 << 20;
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) capacity = static_cast<size_t>(info.st_size) + 4096;
    Input input{std::make_unique_for_overwrite<char[]>(capacity), 0};
    while (true) {
        if (capacity - input.size < 4096) {
            auto grown = std::make_unique_for_overwrite<char[]>(capacity * 2);
            std::memcpy(grown.get(), input.data.get(), input.size);
            input.data = std::move(grown);
            capacity *= 2;
        }
        ssize_t got = read(fd, input.data.get() + input.size, capacity - input.size);
        if (got < 0) return std::nullopt;
        if (got == 0) return input;
        input.size += static_cast<size_t>(got);
    }
}

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
    std::optional<Input> bytes = fd >= 0 ? readAll(fd) : std::nullopt;
    if (!bytes) {
        std::fprintf(stderr, "vellum-replay: cannot read %s\n", path);
        return 1;
    }
    std::cout << vellum::replay::replay(bytes->view(), options) << "\n";
    return 0;
}
