#include "corvexd/HandOver.h"

#include <fstream>
#include <iostream>
#include <sstream>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "CorvexKit/SessionCodecJSON.h"
#include "Vellum/Base64.h"
#include "corvexd/SettingsFile.h"

namespace corvexd {

namespace {

using nlohmann::json;

std::string encodeBytes(std::span<const uint8_t> bytes) { return vellum::base64Encode(bytes); }

std::vector<uint8_t> decodeBytes(const json& value) {
    auto decoded = vellum::base64Decode(value.get<std::string>());
    if (!decoded) throw std::runtime_error("bad base64");
    return *decoded;
}

} // namespace

void writeHandOver(const std::string& path, const HandOver& handOver) {
    const auto& session = handOver.session;
    json panes = json::array();
    for (const auto& pane : session.panes) {
        panes.push_back({{"pane", pane.pane},
                         {"retained_start", pane.retainedStart},
                         {"retained", encodeBytes(pane.retained)},
                         {"screen", encodeBytes(std::span(reinterpret_cast<const uint8_t*>(pane.screen.data()),
                                                          pane.screen.size()))}});
    }
    json document{{"instance", handOver.instance},
                  {"state", corvex::toJSON(session.state)},
                  {"next_id", session.nextID},
                  {"scrollback_lines", session.scrollbackLines},
                  {"panes", std::move(panes)}};
    writeFileWhole(path, document.dump());
}

std::optional<HandOver> takeHandOver(const std::string& path) {
    std::ifstream in(path);
    if (!in) return std::nullopt;
    std::stringstream text;
    text << in.rdbuf();
    in.close();
    ::unlink(path.c_str());
    auto document = json::parse(text.str(), nullptr, false);
    if (!document.is_object()) return std::nullopt;
    try {
        HandOver handOver;
        handOver.instance = document.at("instance").get<std::string>();
        auto& session = handOver.session;
        session.state = corvex::decodeJSON<corvex::ModelState>(document.at("state"));
        session.nextID = document.at("next_id").get<uint64_t>();
        session.scrollbackLines = document.at("scrollback_lines").get<int>();
        for (const auto& pane : document.at("panes")) {
            auto screen = decodeBytes(pane.at("screen"));
            session.panes.push_back(corvex::PaneHandOver{pane.at("pane").get<uint64_t>(),
                                                         pane.at("retained_start").get<uint64_t>(),
                                                         decodeBytes(pane.at("retained")),
                                                         std::string(screen.begin(), screen.end())});
        }
        return handOver;
    } catch (const std::exception& error) {
        std::cerr << "corvexd: the hand-over in " << path << " doesn't read: " << error.what() << "\n";
        return std::nullopt;
    }
}

} // namespace corvexd
