#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>

namespace corvex::testing {

// A fresh folder under /tmp (short, so socket paths fit), removed with everything in it.
class ScratchDirectory {
public:
    ScratchDirectory() {
        char pattern[] = "/tmp/corvex-test-XXXXXX";
        path_ = ::mkdtemp(pattern);
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

    std::string writeExecutable(const std::string& name, const std::string& text) const {
        std::string at = file(name);
        std::ofstream(at) << text;
        ::chmod(at.c_str(), 0755);
        return at;
    }

private:
    std::string path_;
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

} // namespace corvex::testing
