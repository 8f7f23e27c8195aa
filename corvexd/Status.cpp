#include "corvexd/Status.h"

#include <iostream>
#include <optional>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "CorvexKit/FrameParser.h"
#include "CorvexKit/ProtocolJSON.h"
#include "Platform/Descriptors.h"
#include "corvexd/CommandSupport.h"
#include "corvexd/RuntimeDirectory.h"

namespace corvexd {

namespace {

// The running daemon's hello, or absent when none answers.
std::optional<corvex::Hello> askHello(const std::string& socketPath) {
    namespace protocol = corvex::protocol;
    int fd = connectTo(socketPath);
    if (fd < 0) return std::nullopt;
    timeval timeout{5, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    protocol::HelloCall call;
    call.client = "corvexd status";
    std::string frame = corvex::makeJSONFrame(protocol::requestEnvelope(1, call.name, protocol::encodeParams(call)).dump());
    std::optional<corvex::Hello> result;
    bool answered = false;
    if (platform::writeAll(fd, frame)) {
        corvex::FrameParser parser;
        char buffer[65536];
        while (!answered) {
            ssize_t count = ::recv(fd, buffer, sizeof(buffer), 0);
            if (count <= 0) break;
            bool ok = parser.append(std::string_view(buffer, static_cast<size_t>(count)), [&](uint8_t type, std::string_view payload) {
                if (type != static_cast<uint8_t>(corvex::FrameType::json)) return;
                auto reply = nlohmann::json::parse(payload, nullptr, false);
                if (!reply.is_object() || reply.value("id", 0) != 1) return;
                answered = true;
                if (!reply.contains("result")) return;
                try {
                    result = protocol::decodeResult<protocol::HelloCall>(reply["result"]);
                } catch (const corvex::DecodingError&) {
                }
            });
            if (!ok) break;
        }
    }
    ::close(fd);
    return result;
}

} // namespace

int status(const std::vector<std::string>& options) {
    auto directory = RuntimeDirectory::defaultPath();
    std::string socketPath = directory + "/corvexd.sock";
    if (options.size() == 1 && options[0] == "--print-socket") {
        std::cout << socketPath << "\n";
        return 0;
    }
    if (options.size() == 1 && options[0] == "--print-builds") {
        RuntimeDirectory::existing(directory);
        auto hello = askHello(socketPath);
        if (!hello) return fail("not running");
        std::string holder = hello->holder ? hello->holder->build.value_or("") : "";
        std::cout << "serve=" << hello->build.value_or("") << "\nholder=" << holder << "\n";
        return 0;
    }
    // Worded as the daemon's other messages are: "corvexd: " and what is so.
    if (!accepts(socketPath)) {
        std::cout << "corvexd: not running\n";
        return 1;
    }
    auto hello = askHello(socketPath);
    std::cout << "corvexd: running" << (hello && hello->pid ? " (pid " + std::to_string(*hello->pid) + ")" : std::string())
              << " on " << socketPath << "\n";
    return 0;
}

} // namespace corvexd
