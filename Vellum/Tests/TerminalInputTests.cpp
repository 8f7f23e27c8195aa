#include <gtest/gtest.h>

#include "Vellum/KeyEncoder.h"
#include "Vellum/MouseEncoder.h"
#include "Vellum/WheelInput.h"

using namespace vellum;

namespace {

KeyInput key(TerminalKey which, KeyModifiers modifiers = {}) {
    KeyInput input;
    input.key = which;
    input.modifiers = modifiers;
    return input;
}

KeyInput character(std::string text, char32_t base, KeyModifiers modifiers = {}) {
    KeyInput input;
    input.text = std::move(text);
    input.base = base;
    input.modifiers = modifiers;
    return input;
}

KeyInput function(int number, KeyModifiers modifiers = {}) {
    KeyInput input = key(TerminalKey::function, modifiers);
    input.functionNumber = number;
    return input;
}

KeyInput keypad(std::string text) {
    KeyInput input = character(text, char32_t(text[0]));
    input.keypad = true;
    return input;
}

constexpr KeyModifiers shift{.shift = true}, alt{.alt = true}, ctrl{.ctrl = true};
constexpr KeyboardModes normal{}, application{.applicationCursor = true, .applicationKeypad = true};

} // namespace

TEST(KeyEncoder, TextControlAndAlt) {
    struct Case {
        KeyInput input;
        std::string bytes;
    };
    const Case cases[] = {
        {character("a", 'a'), "a"},
        {character("A", 'a', shift), "A"},
        {character("\xc3\xa9", 0), "\xc3\xa9"},
        {character("", 'c', ctrl), "\x03"},
        {character(" ", ' ', ctrl), std::string(1, '\0')},
        {character("", '2', ctrl), std::string(1, '\0')},
        {character("", '[', ctrl), "\x1b"},
        {character("", '\\', ctrl), "\x1c"},
        {character("", ']', ctrl), "\x1d"},
        {character("", '6', ctrl), "\x1e"},
        {character("", '/', ctrl), "\x1f"},
        {character("", '8', ctrl), "\x7f"},
        {character("1", '1', ctrl), "1"}, // Ctrl changes nothing here
        {character("x", 'x', alt), "\x1bx"},
        {character("", 'a', {.alt = true, .ctrl = true}), "\x1b\x01"},
        {character("", 0, ctrl), ""},
    };
    for (const Case& c : cases) EXPECT_EQ(encodeKey(c.input, normal), c.bytes) << c.input.text << " base " << int(c.input.base);
}

TEST(KeyEncoder, EditingKeys) {
    EXPECT_EQ(encodeKey(key(TerminalKey::enter), normal), "\r");
    EXPECT_EQ(encodeKey(key(TerminalKey::enter, alt), normal), "\x1b\r");
    EXPECT_EQ(encodeKey(key(TerminalKey::tab), normal), "\t");
    EXPECT_EQ(encodeKey(key(TerminalKey::tab, shift), normal), "\x1b[Z");
    EXPECT_EQ(encodeKey(key(TerminalKey::backspace), normal), "\x7f");
    EXPECT_EQ(encodeKey(key(TerminalKey::backspace, ctrl), normal), "\x08");
    EXPECT_EQ(encodeKey(key(TerminalKey::backspace, alt), normal), "\x1b\x7f");
    EXPECT_EQ(encodeKey(key(TerminalKey::escape), normal), "\x1b");
    EXPECT_EQ(encodeKey(key(TerminalKey::insert), normal), "\x1b[2~");
    EXPECT_EQ(encodeKey(key(TerminalKey::deleteKey), normal), "\x1b[3~");
    EXPECT_EQ(encodeKey(key(TerminalKey::pageUp), normal), "\x1b[5~");
    EXPECT_EQ(encodeKey(key(TerminalKey::pageDown, ctrl), normal), "\x1b[6;5~");
    EXPECT_EQ(encodeKey(key(TerminalKey::deleteKey, shift), application), "\x1b[3;2~");
}

TEST(KeyEncoder, CursorKeysFollowTheCursorKeyMode) {
    EXPECT_EQ(encodeKey(key(TerminalKey::up), normal), "\x1b[A");
    EXPECT_EQ(encodeKey(key(TerminalKey::down), application), "\x1bOB");
    EXPECT_EQ(encodeKey(key(TerminalKey::right), normal), "\x1b[C");
    EXPECT_EQ(encodeKey(key(TerminalKey::left), application), "\x1bOD");
    EXPECT_EQ(encodeKey(key(TerminalKey::home), normal), "\x1b[H");
    EXPECT_EQ(encodeKey(key(TerminalKey::end), application), "\x1bOF");
    EXPECT_EQ(encodeKey(key(TerminalKey::begin), normal), "\x1b[E");
    // Modifiers always give the CSI form with the modifier parameter.
    EXPECT_EQ(encodeKey(key(TerminalKey::up, shift), application), "\x1b[1;2A");
    EXPECT_EQ(encodeKey(key(TerminalKey::left, alt), normal), "\x1b[1;3D");
    EXPECT_EQ(encodeKey(key(TerminalKey::right, ctrl), normal), "\x1b[1;5C");
    EXPECT_EQ(encodeKey(key(TerminalKey::home, {.shift = true, .ctrl = true}), normal), "\x1b[1;6H");
    EXPECT_EQ(encodeKey(key(TerminalKey::down, {.meta = true}), normal), "\x1b[1;9B");
}

TEST(KeyEncoder, FunctionKeys) {
    const std::string plain[] = {"\x1bOP", "\x1bOQ", "\x1bOR", "\x1bOS", "\x1b[15~", "\x1b[17~",
                                 "\x1b[18~", "\x1b[19~", "\x1b[20~", "\x1b[21~", "\x1b[23~", "\x1b[24~"};
    for (int n = 1; n <= 12; ++n) EXPECT_EQ(encodeKey(function(n), normal), plain[n - 1]) << "F" << n;
    EXPECT_EQ(encodeKey(function(1, ctrl), normal), "\x1b[1;5P");
    EXPECT_EQ(encodeKey(function(5, shift), normal), "\x1b[15;2~");
    EXPECT_EQ(encodeKey(function(13), normal), "\x1b[1;2P"); // F13 is Shift+F1
    EXPECT_EQ(encodeKey(function(24), normal), "\x1b[24;2~");
    EXPECT_EQ(encodeKey(function(30), normal), "");
}

TEST(KeyEncoder, KeypadInApplicationMode) {
    EXPECT_EQ(encodeKey(keypad("+"), normal), "+");
    EXPECT_EQ(encodeKey(keypad("+"), application), "\x1bOk");
    EXPECT_EQ(encodeKey(keypad("*"), application), "\x1bOj");
    EXPECT_EQ(encodeKey(keypad("-"), application), "\x1bOm");
    EXPECT_EQ(encodeKey(keypad("/"), application), "\x1bOo");
    EXPECT_EQ(encodeKey(keypad("7"), application), "7"); // digits type digits while Num Lock is on
    KeyInput enter = key(TerminalKey::enter);
    enter.keypad = true;
    EXPECT_EQ(encodeKey(enter, normal), "\r");
    EXPECT_EQ(encodeKey(enter, application), "\x1bOM");
}

TEST(KeyEncoder, PasteNormalisesLineEndsAndGuardsTheBracket) {
    EXPECT_EQ(encodePaste("a\nb\r\nc\rd", false), "a\rb\rc\rd");
    EXPECT_EQ(encodePaste("ls\n", true), "\x1b[200~ls\r\x1b[201~");
    // Text cannot end the bracket early, not even by splitting the marker around another one.
    EXPECT_EQ(encodePaste("x\x1b[201~rm -rf ~\n", true), "\x1b[200~xrm -rf ~\r\x1b[201~");
    EXPECT_EQ(encodePaste("\x1b[20\x1b[201~1~", true), "\x1b[200~\x1b[201~");
}

namespace {

MouseReport mouse(MouseAction action, MouseButton button, int col, int row, KeyModifiers modifiers = {}) {
    return {action, button, modifiers, col, row, col * 10 + 3, row * 20 + 5};
}

} // namespace

TEST(MouseEncoder, TrackingModesDecideWhatIsReported) {
    auto press = mouse(MouseAction::press, MouseButton::left, 0, 0);
    auto release = mouse(MouseAction::release, MouseButton::left, 0, 0);
    auto drag = mouse(MouseAction::motion, MouseButton::left, 1, 0);
    auto hover = mouse(MouseAction::motion, MouseButton::none, 1, 0);
    auto sgr = MouseEncoding::sgr;
    EXPECT_EQ(encodeMouse(press, MouseTracking::none, sgr), "");
    EXPECT_EQ(encodeMouse(press, MouseTracking::x10, sgr), "\x1b[<0;1;1M");
    EXPECT_EQ(encodeMouse(release, MouseTracking::x10, sgr), "");
    EXPECT_EQ(encodeMouse(release, MouseTracking::normal, sgr), "\x1b[<0;1;1m");
    EXPECT_EQ(encodeMouse(drag, MouseTracking::normal, sgr), "");
    EXPECT_EQ(encodeMouse(drag, MouseTracking::buttonEvent, sgr), "\x1b[<32;2;1M");
    EXPECT_EQ(encodeMouse(hover, MouseTracking::buttonEvent, sgr), "");
    EXPECT_EQ(encodeMouse(hover, MouseTracking::anyEvent, sgr), "\x1b[<35;2;1M");
    // X10 mode reports no modifiers; the others add shift 4, alt 8, ctrl 16.
    auto modified = mouse(MouseAction::press, MouseButton::right, 0, 0, {.shift = true, .alt = true, .ctrl = true});
    EXPECT_EQ(encodeMouse(modified, MouseTracking::x10, sgr), "\x1b[<2;1;1M");
    EXPECT_EQ(encodeMouse(modified, MouseTracking::normal, sgr), "\x1b[<30;1;1M");
}

TEST(MouseEncoder, Encodings) {
    auto press = mouse(MouseAction::press, MouseButton::middle, 4, 2);
    auto release = mouse(MouseAction::release, MouseButton::middle, 4, 2);
    auto normal = MouseTracking::normal;
    EXPECT_EQ(encodeMouse(press, normal, MouseEncoding::legacy), "\x1b[M!%#");
    EXPECT_EQ(encodeMouse(release, normal, MouseEncoding::legacy), "\x1b[M#%#"); // every release is button 3
    EXPECT_EQ(encodeMouse(release, normal, MouseEncoding::sgr), "\x1b[<1;5;3m");
    EXPECT_EQ(encodeMouse(press, normal, MouseEncoding::urxvt), "\x1b[33;5;3M");
    EXPECT_EQ(encodeMouse(press, normal, MouseEncoding::sgrPixels), "\x1b[<1;44;46M");
    // Past column 223 the legacy bytes run out; UTF-8 goes on to 2015.
    auto far = mouse(MouseAction::press, MouseButton::left, 300, 0);
    EXPECT_EQ(encodeMouse(far, normal, MouseEncoding::legacy), "");
    EXPECT_EQ(encodeMouse(far, normal, MouseEncoding::utf8), "\x1b[M \xc5\x8d!");
    EXPECT_EQ(encodeMouse(far, normal, MouseEncoding::sgr), "\x1b[<0;301;1M");
    EXPECT_EQ(encodeMouse(mouse(MouseAction::press, MouseButton::left, 3000, 0), normal, MouseEncoding::utf8), "");
}

TEST(MouseEncoder, WheelAndExtraButtons) {
    auto sgr = MouseEncoding::sgr;
    EXPECT_EQ(encodeMouse(mouse(MouseAction::press, MouseButton::wheelUp, 0, 0), MouseTracking::normal, sgr), "\x1b[<64;1;1M");
    EXPECT_EQ(encodeMouse(mouse(MouseAction::press, MouseButton::wheelDown, 0, 0, {.ctrl = true}), MouseTracking::normal, sgr),
              "\x1b[<81;1;1M");
    EXPECT_EQ(encodeMouse(mouse(MouseAction::release, MouseButton::wheelUp, 0, 0), MouseTracking::normal, sgr), "");
    EXPECT_EQ(encodeMouse(mouse(MouseAction::press, MouseButton::back, 0, 0), MouseTracking::normal, sgr), "\x1b[<128;1;1M");
    EXPECT_EQ(encodeMouse(mouse(MouseAction::press, MouseButton::left, 0, 0), 7, 2), ""); // modes the engine never sets
}

TEST(WheelInput, Routes) {
    WheelRouteInputs in;
    EXPECT_EQ(chooseWheelRoute(in), WheelRoute::localScrollback);
    in.mouseMode = 2;
    EXPECT_EQ(chooseWheelRoute(in), WheelRoute::mouse);
    in.reportingAllowed = false;
    EXPECT_EQ(chooseWheelRoute(in), WheelRoute::localScrollback);
    in.alternateBuffer = true;
    EXPECT_EQ(chooseWheelRoute(in), WheelRoute::none);
    in.alternateScroll = true;
    EXPECT_EQ(chooseWheelRoute(in), WheelRoute::cursorKeys);
    in.reportingAllowed = true;
    in.bypass = true; // Shift on the alternate screen sends nothing
    EXPECT_EQ(chooseWheelRoute(in), WheelRoute::none);
    in.alternateBuffer = false;
    EXPECT_EQ(chooseWheelRoute(in), WheelRoute::localScrollback);
}

TEST(WheelInput, AccumulatorKeepsFractionsWithTheirSign) {
    WheelDistanceAccumulator<WheelRoute> acc;
    EXPECT_EQ(acc.takeWholeLines(WheelRoute::localScrollback, 10, 20), 0); // half a line
    EXPECT_EQ(acc.takeWholeLines(WheelRoute::localScrollback, 10, 20), 1); // twice is one
    EXPECT_EQ(acc.takeWholeLines(WheelRoute::localScrollback, 12, 20), 0);
    EXPECT_EQ(acc.takeWholeLines(WheelRoute::localScrollback, -4, 20), 0); // a tiny reverse does not jump
    EXPECT_NEAR(acc.remainder, 0.4, 1e-9);
    EXPECT_EQ(acc.takeWholeLines(WheelRoute::localScrollback, -30, 20), -1);
    EXPECT_NEAR(acc.remainder, -0.1, 1e-9);
    // A new route starts from nothing.
    EXPECT_EQ(acc.takeWholeLines(WheelRoute::mouse, 19, 20), 0);
    EXPECT_NEAR(acc.remainder, 0.95, 1e-9);
    EXPECT_EQ(acc.takeWholeLines(WheelRoute::mouse, 100, 20), 5);
    EXPECT_EQ(acc.takeWholeLines(WheelRoute::mouse, 100, 0), 0);
}

TEST(WheelInput, NotchesAlwaysMove) {
    EXPECT_EQ(notchLines(0.2, 0.2), 1);
    EXPECT_EQ(notchLines(-0.2, -0.2), -1);
    EXPECT_EQ(notchLines(3, 1), 3);
    EXPECT_EQ(notchLines(-2.6, -1), -3);
}

TEST(WheelInput, ReportBudgetFillsAtAHundredASecond) {
    constexpr uint64_t ms = 1'000'000;
    WheelReportBudget budget;
    EXPECT_EQ(budget.grant(0, 0), 0);
    EXPECT_EQ(budget.grant(10, 0), 6); // a burst is one event's worth
    EXPECT_EQ(budget.grant(6, 5 * ms), 0);
    EXPECT_EQ(budget.grant(6, 30 * ms), 3);
    // A long pause does not store up more than a burst.
    EXPECT_EQ(budget.grant(100, 10'000 * ms), 6);
    // A clock that went back adds nothing and keeps the stamp.
    EXPECT_EQ(budget.grant(6, 9'000 * ms), 0);
    EXPECT_EQ(budget.stampNanoseconds, 10'000 * ms);
    // Over one second of steady asking, about a hundred go through.
    int total = 0;
    for (uint64_t t = 10'001; t <= 11'000; ++t) total += budget.grant(6, t * ms);
    EXPECT_GE(total, 99);
    EXPECT_LE(total, 101);
}
