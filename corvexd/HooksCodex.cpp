#include "corvexd/Hooks.h"

#include <cstdio>

// Codex has one `notify` slot, a top-level TOML array of strings: the program and its
// arguments, to which Codex appends one JSON argument. Ours takes the slot and runs the
// previous holder after itself, named after a "--".
namespace corvexd::hooks {

namespace {

struct Span {
    size_t begin = 0; // first byte of the `notify` line
    size_t end = 0;   // past the line that closes its array
    std::vector<std::string> words;
};

bool isBlank(char c) { return c == ' ' || c == '\t'; }

size_t lineEnd(const std::string& text, size_t from) {
    size_t end = text.find('\n', from);
    return end == std::string::npos ? text.size() : end + 1;
}

// The start of a top-level `notify = ...` line, before any table header; npos if none.
size_t findNotify(const std::string& text) {
    for (size_t line = 0; line < text.size(); line = lineEnd(text, line)) {
        size_t at = line;
        while (at < text.size() && isBlank(text[at])) ++at;
        if (at < text.size() && text[at] == '[') return std::string::npos;
        if (text.compare(at, 6, "notify") != 0) continue;
        size_t after = at + 6;
        while (after < text.size() && isBlank(text[after])) ++after;
        if (after < text.size() && text[after] == '=') return line;
    }
    return std::string::npos;
}

[[noreturn]] void unreadable() {
    throw HookError("the notify setting in ~/.codex/config.toml isn't a list of strings; nothing was changed");
}

void appendUtf8(std::string& out, unsigned long code) {
    if (code < 0x80) {
        out += char(code);
    } else if (code < 0x800) {
        out += char(0xC0 | (code >> 6));
        out += char(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += char(0xE0 | (code >> 12));
        out += char(0x80 | ((code >> 6) & 0x3F));
        out += char(0x80 | (code & 0x3F));
    } else {
        out += char(0xF0 | (code >> 18));
        out += char(0x80 | ((code >> 12) & 0x3F));
        out += char(0x80 | ((code >> 6) & 0x3F));
        out += char(0x80 | (code & 0x3F));
    }
}

// A basic string from after its opening quote; `at` ends past the closing one.
std::string basicString(const std::string& text, size_t& at) {
    std::string out;
    while (at < text.size() && text[at] != '"') {
        char c = text[at++];
        if (c == '\n') unreadable();
        if (c != '\\') {
            out += c;
            continue;
        }
        if (at >= text.size()) unreadable();
        char escape = text[at++];
        switch (escape) {
        case 'n': out += '\n'; break;
        case 't': out += '\t'; break;
        case 'r': out += '\r'; break;
        case 'b': out += '\b'; break;
        case 'f': out += '\f'; break;
        case '"': out += '"'; break;
        case '\\': out += '\\'; break;
        case 'u':
        case 'U': {
            size_t digits = escape == 'u' ? 4 : 8;
            if (at + digits > text.size()) unreadable();
            appendUtf8(out, std::stoul(text.substr(at, digits), nullptr, 16));
            at += digits;
            break;
        }
        default: unreadable();
        }
    }
    if (at >= text.size()) unreadable();
    ++at;
    return out;
}

Span readNotify(const std::string& text, size_t line) {
    Span span{line, line, {}};
    size_t at = text.find('=', line) + 1;
    while (at < text.size() && isBlank(text[at])) ++at;
    if (at >= text.size() || text[at] != '[') unreadable();
    ++at;
    for (;;) {
        while (at < text.size() && (isBlank(text[at]) || text[at] == '\n' || text[at] == '\r' || text[at] == ',')) ++at;
        if (at >= text.size()) unreadable();
        char c = text[at];
        if (c == ']') break;
        if (c == '#') {
            at = lineEnd(text, at);
        } else if (c == '"') {
            ++at;
            span.words.push_back(basicString(text, at));
        } else if (c == '\'') {
            size_t close = text.find('\'', at + 1);
            if (close == std::string::npos || text.find('\n', at + 1) < close) unreadable();
            span.words.push_back(text.substr(at + 1, close - at - 1));
            at = close + 1;
        } else {
            unreadable();
        }
    }
    span.end = lineEnd(text, at);
    return span;
}

std::optional<Span> notifySpan(const std::string& config) {
    size_t line = findNotify(config);
    if (line == std::string::npos) return std::nullopt;
    return readNotify(config, line);
}

bool isOurs(const std::vector<std::string>& words) { return words.size() >= 2 && words[1] == notifyMarker; }

// What ran in the slot before ours took it.
std::vector<std::string> chainedOf(const std::vector<std::string>& words) {
    if (!isOurs(words)) return words;
    for (size_t i = 2; i < words.size(); ++i) {
        if (words[i] == "--") return {words.begin() + long(i) + 1, words.end()};
    }
    return {};
}

std::string tomlString(const std::string& word) {
    std::string out = "\"";
    for (unsigned char c : word) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
        } else if (c < 0x20 || c == 0x7f) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += char(c);
        }
    }
    return out + "\"";
}

} // namespace

std::vector<std::string> codexNotifyCommand(const std::string& corvexd, const std::vector<std::string>& chained) {
    std::vector<std::string> command{corvexd, notifyMarker, "codex"};
    if (!chained.empty()) {
        command.push_back("--");
        command.insert(command.end(), chained.begin(), chained.end());
    }
    return command;
}

std::string codexNotifyLine(const std::vector<std::string>& command) {
    std::string line = "notify = [";
    for (size_t i = 0; i < command.size(); ++i) line += (i ? ", " : "") + tomlString(command[i]);
    return line + "]\n";
}

std::optional<std::vector<std::string>> codexNotify(const std::string& config) {
    auto span = notifySpan(config);
    if (!span) return std::nullopt;
    return span->words;
}

std::string withCodexNotify(const std::optional<std::string>& config, const std::string& corvexd) {
    std::string text = config.value_or("");
    auto span = notifySpan(text);
    if (!span) return codexNotifyLine(codexNotifyCommand(corvexd, {})) + text;
    auto line = codexNotifyLine(codexNotifyCommand(corvexd, chainedOf(span->words)));
    return text.substr(0, span->begin) + line + text.substr(span->end);
}

std::string withoutCodexNotify(const std::string& config) {
    auto span = notifySpan(config);
    if (!span || !isOurs(span->words)) return config;
    auto chained = chainedOf(span->words);
    std::string line = chained.empty() ? std::string() : codexNotifyLine(chained);
    return config.substr(0, span->begin) + line + config.substr(span->end);
}

HookState codexHookState(const std::optional<std::string>& config, const std::string& corvexd) {
    if (!config) return HookState::missing;
    std::optional<Span> span;
    try {
        span = notifySpan(*config);
    } catch (const HookError&) {
        return HookState::missing;
    }
    if (!span || !isOurs(span->words)) return HookState::missing;
    return span->words == codexNotifyCommand(corvexd, chainedOf(span->words)) ? HookState::installed
                                                                              : HookState::outdated;
}

} // namespace corvexd::hooks
