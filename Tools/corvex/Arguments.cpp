#include "Tools/corvex/Arguments.h"

#include <charconv>
#include <cmath>

#include "Tools/corvex/Cli.h"

namespace corvex::cli {

namespace {

bool isOption(const std::string& item) { return item.size() > 1 && item[0] == '-'; }

template <typename T>
T parseValue(const std::string& text, std::string_view what) {
    T value{};
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        throw UsageError("bad " + std::string(what) + ": " + text);
    }
    return value;
}

} // namespace

Arguments::Arguments(std::vector<std::string> args, bool daemonIsLocal) : daemonIsLocal_(daemonIsLocal) {
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--") {
            trailing_.emplace(args.begin() + static_cast<long>(i) + 1, args.end());
            break;
        }
        items_.push_back(args[i]);
    }
}

bool Arguments::flag(std::string_view name) {
    bool found = false;
    for (auto it = items_.begin(); it != items_.end();) {
        if (*it == name) {
            found = true;
            it = items_.erase(it);
        } else {
            ++it;
        }
    }
    return found;
}

std::vector<std::string> Arguments::options(std::string_view name) {
    std::vector<std::string> values;
    std::string prefix = std::string(name) + "=";
    for (size_t i = 0; i < items_.size();) {
        if (items_[i] == name) {
            if (i + 1 >= items_.size()) throw UsageError(std::string(name) + " needs a value");
            values.push_back(items_[i + 1]);
            items_.erase(items_.begin() + static_cast<long>(i), items_.begin() + static_cast<long>(i) + 2);
        } else if (items_[i].rfind(prefix, 0) == 0) {
            values.push_back(items_[i].substr(prefix.size()));
            items_.erase(items_.begin() + static_cast<long>(i));
        } else {
            ++i;
        }
    }
    return values;
}

std::optional<std::string> Arguments::option(std::string_view name) {
    auto values = options(name);
    if (values.empty()) return std::nullopt;
    return values.back();
}

std::optional<std::string> Arguments::optionalPositional() {
    for (auto it = items_.begin(); it != items_.end(); ++it) {
        if (!isOption(*it)) {
            std::string value = *it;
            items_.erase(it);
            return value;
        }
    }
    return std::nullopt;
}

std::string Arguments::positional(std::string_view what) {
    if (auto value = optionalPositional()) return *value;
    throw UsageError("missing " + std::string(what));
}

std::vector<std::string> Arguments::remainingPositionals() {
    std::vector<std::string> values;
    while (auto value = optionalPositional()) values.push_back(*value);
    return values;
}

void Arguments::finish() const {
    for (const auto& item : items_) {
        if (isOption(item)) throw UsageError("unknown option " + item);
    }
    if (!items_.empty()) throw UsageError("unexpected argument: " + items_.front());
}

uint64_t parseID(const std::string& text, std::string_view what) { return parseValue<uint64_t>(text, what); }

int parseInt(const std::string& text, std::string_view what) { return parseValue<int>(text, what); }

double parseNumber(const std::string& text, std::string_view what) {
    double value = parseValue<double>(text, what);
    if (!std::isfinite(value)) throw UsageError("bad " + std::string(what) + ": " + text);
    return value;
}

} // namespace corvex::cli
