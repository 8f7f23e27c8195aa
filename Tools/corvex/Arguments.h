#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvex::cli {

// The arguments of one command. Options ("--name VALUE", "--name=VALUE", flags) may stand
// anywhere before "--"; what follows "--" is taken as it is. Each accessor consumes what it
// reads, and finish() rejects whatever is left.
class Arguments {
public:
    explicit Arguments(std::vector<std::string> args, bool daemonIsLocal = true);
    // The daemon runs on this machine, so this process's folder means something there.
    bool daemonIsLocal() const { return daemonIsLocal_; }

    bool flag(std::string_view name);
    std::optional<std::string> option(std::string_view name);
    std::vector<std::string> options(std::string_view name);
    std::string positional(std::string_view what);
    std::optional<std::string> optionalPositional();
    std::vector<std::string> remainingPositionals();
    // Said by a command whose arguments name nothing on the daemon's machine: it runs here alone.
    void runHereAlone() { hereAlone_ = true; }
    bool runsHereAlone() const { return hereAlone_; }
    // What came after "--", absent when there was no "--".
    std::optional<std::vector<std::string>> trailing() const { return trailing_; }
    void finish() const;

private:
    std::vector<std::string> items_;
    std::optional<std::vector<std::string>> trailing_;
    bool daemonIsLocal_ = true;
    bool hereAlone_ = false;
};

uint64_t parseID(const std::string& text, std::string_view what);
int parseInt(const std::string& text, std::string_view what);
double parseNumber(const std::string& text, std::string_view what);

} // namespace corvex::cli
