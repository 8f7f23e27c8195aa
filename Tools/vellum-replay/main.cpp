#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>
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
    std::string bytes;
    if (std::strcmp(path, "-") == 0) {
        bytes.assign(std::istreambuf_iterator<char>(std::cin), {});
    } else {
        std::ifstream file(path, std::ios::binary);
        if (!file) {
            std::fprintf(stderr, "vellum-replay: cannot read %s\n", path);
            return 1;
        }
        bytes.assign(std::istreambuf_iterator<char>(file), {});
    }
    std::cout << vellum::replay::replay(bytes, options) << "\n";
    return 0;
}
