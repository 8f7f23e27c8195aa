#include "corvexd/AgentHookCommand.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "CorvexKit/Frame.h"
#include "CorvexKit/FrameParser.h"
#include "CorvexKit/ProtocolJSON.h"
#include "corvexd/CommandSupport.h"
#include "corvexd/RuntimeDirectory.h"

namespace corvexd {

namespace {

using nlohmann::json;
using namespace std::chrono_literals;
namespace protocol = corvex::protocol;

constexpr size_t payloadLimit = 1 << 20;
constexpr size_t textLimit = 2000;
constexpr auto answerPatience = 2s;
constexpr auto decisionPatience = 590s; // inside the hook's own timeout

// Cut to a whole character at most `textLimit` bytes long.
std::string clipped(std::string text) {
    if (text.size() <= textLimit) return text;
    size_t end = textLimit;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
    text.resize(end);
    return text + "…";
}

std::optional<std::string> stringAt(const json& object, const char* key) {
    if (!object.is_object()) return std::nullopt;
    auto found = object.find(key);
    if (found == object.end() || !found->is_string()) return std::nullopt;
    return clipped(found->get<std::string>());
}

// What a tool was given, as a person would read it: the command, the file, else the whole input.
std::optional<std::string> toolSummary(const json& input) {
    if (input.is_null()) return std::nullopt;
    for (const char* key : {"command", "file_path", "path", "url", "pattern", "query"}) {
        if (auto value = stringAt(input, key)) return value;
    }
    return clipped(input.is_string() ? input.get<std::string>() : input.dump());
}

// The agent: our parent, or the one above it when a shell ran the hook's command line.
int32_t agentPid() {
    pid_t parent = ::getppid();
    std::ifstream comm("/proc/" + std::to_string(parent) + "/comm");
    std::string name;
    std::getline(comm, name);
    if (name != "sh" && name != "bash" && name != "dash" && name != "zsh") return parent;
    std::ifstream stat("/proc/" + std::to_string(parent) + "/stat");
    std::string line;
    std::getline(stat, line);
    auto close = line.rfind(')');
    if (close == std::string::npos) return parent;
    char state = 0;
    int grandparent = 0;
    if (std::sscanf(line.c_str() + close + 1, " %c %d", &state, &grandparent) != 2) return parent;
    return grandparent;
}

std::optional<uint64_t> thisPane() {
    const char* pane = std::getenv("CORVEX_PANE");
    if (!pane || !*pane) return std::nullopt;
    char* end = nullptr;
    auto value = std::strtoull(pane, &end, 10);
    if (*end != '\0') return std::nullopt;
    return value;
}

// One request to the pane's daemon, with a short patience; absent on any failure.
class DaemonLink {
public:
    DaemonLink() {
        fd_ = connectTo(RuntimeDirectory::defaultPath() + "/corvexd.sock");
        if (fd_ < 0) return;
        timeval patience{2, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        // The daemon serves nothing before a hello.
        protocol::HelloCall hello;
        hello.client = "corvexd-hook";
        call(hello);
    }
    ~DaemonLink() {
        if (fd_ >= 0) ::close(fd_);
    }
    DaemonLink(const DaemonLink&) = delete;
    DaemonLink& operator=(const DaemonLink&) = delete;

    template <typename M>
    std::optional<typename M::Result> call(const M& params) {
        if (fd_ < 0) return std::nullopt;
        int64_t id = nextID_++;
        auto frame = corvex::makeJSONFrame(
            protocol::requestEnvelope(id, M::name, protocol::encodeParams(params)).dump());
        if (::send(fd_, frame.data(), frame.size(), MSG_NOSIGNAL) != ssize_t(frame.size())) return fail();
        auto reply = awaitReply(id);
        if (!reply || !reply->contains("result")) return fail();
        try {
            return protocol::decodeResult<M>((*reply)["result"]);
        } catch (const std::exception&) {
            return std::nullopt;
        }
    }

private:
    std::nullopt_t fail() {
        ::close(fd_);
        fd_ = -1;
        return std::nullopt;
    }

    std::optional<json> awaitReply(int64_t id) {
        auto deadline = std::chrono::steady_clock::now() + answerPatience;
        std::optional<json> reply;
        while (!reply) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left <= 0ms) return std::nullopt;
            pollfd ready{fd_, POLLIN, 0};
            if (::poll(&ready, 1, int(left.count())) <= 0) continue;
            char buffer[65536];
            ssize_t count = ::read(fd_, buffer, sizeof buffer);
            if (count <= 0) return std::nullopt;
            bool ok = parser_.append(std::string_view(buffer, size_t(count)), [&](uint8_t type, std::string_view payload) {
                if (type != uint8_t(corvex::FrameType::json)) return;
                auto message = json::parse(payload, nullptr, false);
                if (message.is_object() && message.value("id", int64_t(-1)) == id) reply = std::move(message);
            });
            if (!ok) return std::nullopt;
        }
        return reply;
    }

    int fd_ = -1;
    int64_t nextID_ = 1;
    corvex::FrameParser parser_;
};

// Claude Code's answer to a permission request, in its hook reply format.
std::string claudePermissionReply(const protocol::AgentVerdict& verdict) {
    json decision{{"behavior", verdict.decision == corvex::PermissionDecision::allow ? "allow" : "deny"}};
    if (verdict.message) decision["message"] = *verdict.message;
    return json{{"hookSpecificOutput", {{"hookEventName", "PermissionRequest"}, {"decision", decision}}}}.dump();
}

// Waits for a person to decide the held request; nothing when it goes unanswered.
std::optional<protocol::AgentVerdict> awaitDecision(DaemonLink& link, uint64_t pane, const std::string& request) {
    auto deadline = std::chrono::steady_clock::now() + decisionPatience;
    protocol::AgentVerdictCall call;
    call.pane = pane;
    call.request = request;
    while (std::chrono::steady_clock::now() < deadline) {
        auto verdict = link.call(call);
        if (!verdict || verdict->decision) return verdict;
        if (!verdict->open) return std::nullopt;
        std::this_thread::sleep_for(200ms);
    }
    return std::nullopt;
}

// Standard input to its end; absent when it is too big to be a hook's payload. The rest is
// read and dropped all the same, so that the agent's write doesn't fail.
std::optional<std::string> readPayload() {
    std::string text;
    bool tooBig = false;
    char buffer[65536];
    for (;;) {
        pollfd ready{0, POLLIN, 0};
        if (::poll(&ready, 1, 2000) <= 0) break;
        ssize_t count = ::read(0, buffer, sizeof buffer);
        if (count <= 0) break;
        if (text.size() + size_t(count) > payloadLimit) tooBig = true;
        if (!tooBig) text.append(buffer, size_t(count));
    }
    if (tooBig) return std::nullopt;
    return text;
}

protocol::AgentReport claudeReport(uint64_t pane, const std::string& kind, const json& payload) {
    protocol::AgentReport report;
    report.pane = pane;
    report.kind = kind;
    report.event = stringAt(payload, "hook_event_name").value_or("");
    report.pid = agentPid();
    report.session = stringAt(payload, "session_id");
    report.prompt = stringAt(payload, "prompt");
    report.tool = stringAt(payload, "tool_name");
    if (payload.contains("tool_input")) report.toolInput = toolSummary(payload["tool_input"]);
    report.message = stringAt(payload, "message");
    if (!report.message) report.message = stringAt(payload, "last_assistant_message");
    if (!report.message) report.message = stringAt(payload, "error");
    return report;
}

protocol::AgentReport codexReport(uint64_t pane, const std::string& kind, const json& payload) {
    protocol::AgentReport report;
    report.pane = pane;
    report.kind = kind;
    report.event = stringAt(payload, "type").value_or("");
    report.pid = int32_t(::getppid());
    report.session = stringAt(payload, "thread-id");
    report.message = stringAt(payload, "last-assistant-message");
    if (auto inputs = payload.find("input-messages"); inputs != payload.end() && inputs->is_array() && !inputs->empty()) {
        if (inputs->back().is_string()) report.prompt = clipped(inputs->back().get<std::string>());
    }
    return report;
}

void complain(const std::string& message) { std::cerr << "corvexd: " << message << "\n"; }

} // namespace

int agentStatusCommand(const std::vector<std::string>& arguments) try {
    auto pane = thisPane();
    if (arguments.size() != 1 || !pane) return 0; // outside a pane there is nobody to tell
    auto text = readPayload();
    if (!text) {
        complain("the hook's payload is over " + std::to_string(payloadLimit) + " bytes; ignored");
        return 0;
    }
    auto payload = json::parse(*text, nullptr, false);
    if (!payload.is_object()) {
        complain("the hook's payload isn't a JSON object; ignored");
        return 0;
    }
    auto report = claudeReport(*pane, arguments[0], payload);
    DaemonLink link;
    auto answer = link.call(report);
    if (!answer || !answer->request) return 0;
    if (auto verdict = awaitDecision(link, *pane, *answer->request)) std::cout << claudePermissionReply(*verdict) << "\n";
    return 0;
} catch (const std::exception& error) {
    complain(error.what());
    return 0;
}

// Codex's notify gives the program its arguments, then the payload last; ours may carry the
// program that held the slot before after a "--".
void reportCodex(const std::vector<std::string>& arguments) try {
    auto pane = thisPane();
    if (!pane) return;
    const std::string& payloadText = arguments.back();
    auto payload = payloadText.size() > payloadLimit ? json() : json::parse(payloadText, nullptr, false);
    if (!payload.is_object()) {
        complain("the notification isn't a JSON object; ignored");
        return;
    }
    DaemonLink link;
    link.call(codexReport(*pane, arguments[0], payload));
} catch (const std::exception& error) {
    complain(error.what());
}

int agentNotifyCommand(const std::vector<std::string>& arguments) {
    if (arguments.size() < 2) return 0;
    reportCodex(arguments);
    std::vector<std::string> chained;
    for (size_t i = 1; i + 1 < arguments.size(); ++i) {
        if (arguments[i] == "--") {
            chained.assign(arguments.begin() + long(i) + 1, arguments.end() - 1);
            break;
        }
    }
    if (chained.empty()) return 0;
    // What held Codex's notify before us still runs, after us, with the same argument.
    chained.push_back(arguments.back());
    std::vector<char*> argv;
    for (auto& word : chained) argv.push_back(word.data());
    argv.push_back(nullptr);
    ::execvp(argv[0], argv.data());
    return 0;
}

} // namespace corvexd
