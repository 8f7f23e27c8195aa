#include <gtest/gtest.h>

#include "CorvexKit/KeyNames.h"
#include "CorvexKit/ProtocolJSON.h"

using namespace corvex;
using nlohmann::json;

namespace {

std::string keys(std::string_view name) {
    auto bytes = keyBytes(name);
    return bytes ? std::string(bytes->begin(), bytes->end()) : "<unknown>";
}

} // namespace

TEST(KeyNames, NamedKeysInAnyCaseAndControlCharacters) {
    const std::pair<const char*, std::string> table[] = {
        {"enter", "\r"},     {"Enter", "\r"},      {"ESC", "\x1b"},       {"escape", "\x1b"}, {"Tab", "\t"},
        {"backspace", "\x7f"}, {"Space", " "},      {"Up", "\x1b[A"},      {"left", "\x1b[D"}, {"PageDown", "\x1b[6~"},
        {"C-c", "\x03"},     {"C-C", "\x03"},      {"c-a", "\x01"},       {"C-[", "\x1b"},    {"C-@", std::string(1, '\0')},
        {"f13", "<unknown>"}, {"C-1", "<unknown>"}, {"C-", "<unknown>"},   {"", "<unknown>"},  {"Hyper-x", "<unknown>"},
    };
    for (const auto& [name, expected] : table) EXPECT_EQ(keys(name), expected) << name;
}

TEST(ProtocolParams, AreReadTolerantlyButRequiredOnesMustBeThere) {
    using namespace protocol;
    auto split = decodeParams<PaneSplit>(json{{"pane", 3}, {"direction", "up"}, {"cwd", "/tmp"}, {"extra", true}});
    EXPECT_EQ(split.direction, Direction::up);
    EXPECT_EQ(split.spawn.cwd, "/tmp");

    auto fails = [](auto decode) -> std::string {
        try {
            decode();
        } catch (const DecodingError& error) {
            return error.what();
        }
        return "no error";
    };
    EXPECT_EQ(fails([] { decodeParams<PaneClose>(json::object()); }), "missing pane");
    EXPECT_EQ(fails([] { decodeParams<PaneClose>(json{{"pane", -1}}); }), "param \"pane\" must be an unsigned integer");
    EXPECT_EQ(fails([] { decodeParams<PaneSplit>(json{{"pane", 1}, {"direction", "sideways"}}); }),
              "param \"direction\" must be left, right, up or down");
    EXPECT_EQ(fails([] { decodeParams<FocusCall>(json{{"pane", 1}, {"tab", 2}}); }),
              "focus needs exactly one of pane, tab, workspace");
    EXPECT_EQ(fails([] { decodeParams<AgentDecide>(json{{"pane", 1}, {"request", "r"}, {"decision", "maybe"}}); }),
              "param \"decision\" must be allow or deny");
}

// State, pane, bell and copied-text events cross a real daemon in the backend contract suite.
TEST(ProtocolEvents, EventsNoContractCaseCarriesReadBackAsSent) {
    AgentInfo agent;
    agent.kind = "codex";
    const SessionEvent sent[] = {
        SessionEvent::Clipboard{3, "copied", false},
        SessionEvent::Resized{3, 100, 30, 77},
        SessionEvent::Resync{3},
        SessionEvent::Agent{3, agent},
        SessionEvent::Agent{3, std::nullopt},
    };
    for (const auto& event : sent) {
        auto wire = protocol::encodeEvent(event);
        ASSERT_TRUE(wire);
        EXPECT_EQ(protocol::decodeEvent(wire->name, wire->data), event) << wire->name;
    }
    EXPECT_EQ(protocol::encodeEvent(SessionEvent::Resized{3, 1, 1, 0})->route, protocol::EventRoute::paneSubscribers);
    EXPECT_FALSE(protocol::encodeEvent(SessionEvent::Output{3, 0, {}})) << "pane data travels in frames";
    EXPECT_FALSE(protocol::encodeEvent(SessionEvent::Connected{}));
}

TEST(ProtocolEvents, WhatIsDroppedOnTheWayIn) {
    using protocol::decodeEvent;
    EXPECT_FALSE(decodeEvent("pane.resized", json{{"pane", 3}, {"cols", 1}, {"rows", 1}})) << "no seq";
    EXPECT_FALSE(decodeEvent("bell", json::object()));
    EXPECT_FALSE(decodeEvent("bell", json::array()));
    EXPECT_FALSE(decodeEvent("pane.clipboard", json{{"pane", 3}}));
    EXPECT_FALSE(decodeEvent("state", json{{"rev", "x"}}));
    EXPECT_FALSE(decodeEvent("something.new", json{{"pane", 3}}));
    EXPECT_EQ(decodeEvent("pane.clipboard", json{{"pane", 3}, {"text", "t"}, {"target", "clipboard"}}),
              SessionEvent(SessionEvent::Clipboard{3, "t", false}));
    EXPECT_EQ(decodeEvent("agent", json{{"pane", 3}, {"agent", {{"kind", 5}}}}),
              SessionEvent(SessionEvent::Agent{3, std::nullopt}))
        << "an agent that doesn't decode reads absent";
    EXPECT_EQ(decodeEvent("pane", json{{"id", 4}, {"cols", 80}, {"rows", 24}, {"seq", 0}}),
              SessionEvent(SessionEvent::PaneChanged{[] {
                  Pane p;
                  p.id = 4;
                  p.cols = 80;
                  p.rows = 24;
                  return p;
              }(), 0}))
        << "absent rev reads 0";
}
