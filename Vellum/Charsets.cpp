#include "Vellum/Charsets.h"

#include <initializer_list>
#include <utility>

namespace vellum {

namespace {

using Pairs = std::initializer_list<std::pair<unsigned char, std::string_view>>;

Charset make(Pairs pairs) {
    Charset charset;
    for (const auto& [byte, text] : pairs) charset.set(byte, text);
    return charset;
}

const Charset decSpecialGraphics = make({
    {'`', "\u25c6"}, {'a', "\u2592"}, {'b', "\u2409"}, {'c', "\u240c"}, {'d', "\u240d"}, {'e', "\u240a"},
    {'f', "\u00b0"}, {'g', "\u00b1"}, {'h', "\u2424"}, {'i', "\u240b"}, {'j', "\u2518"}, {'k', "\u2510"},
    {'l', "\u250c"}, {'m', "\u2514"}, {'n', "\u253c"}, {'o', "\u23ba"}, {'p', "\u23bb"}, {'q', "\u2500"},
    {'r', "\u23bc"}, {'s', "\u23bd"}, {'t', "\u251c"}, {'u', "\u2524"}, {'v', "\u2534"}, {'w', "\u252c"},
    {'x', "\u2502"}, {'y', "\u2264"}, {'z', "\u2265"}, {'{', "\u03c0"}, {'|', "\u2260"}, {'}', "\u00a3"},
    {'~', "\u00b7"},
});
const Charset unitedKingdom = make({{'#', "\u00a3"}});
const Charset unitedStates = make({});
const Charset dutch = make({{'#', "\u00a3"}, {'@', "\u00be"}, {'[', "\u0133"}, {'\\', "\u00bd"}, {']', "|"},
                            {'{', "\u00a8"}, {'|', "\u0192"}, {'}', "\u00bc"}, {'~', "\u00b4"}});
const Charset finnish = make({{'[', "\u00c4"}, {'\\', "\u00d6"}, {']', "\u00c5"}, {'^', "\u00dc"}, {'`', "\u00e9"},
                              {'{', "\u00e4"}, {'|', "\u00f6"}, {'}', "\u00e5"}, {'~', "\u00fc"}});
const Charset french = make({{'#', "\u00a3"}, {'@', "\u00e0"}, {'[', "\u00b0"}, {'\\', "\u00e7"}, {']', "\u00a7"},
                             {'{', "\u00e9"}, {'|', "\u00f9"}, {'}', "\u00e8"}, {'~', "\u00a8"}});
const Charset frenchCanadian = make({{'@', "\u00e0"}, {'[', "\u00e2"}, {'\\', "\u00e7"}, {']', "\u00ea"}, {'^', "\u00ee"},
                                     {'`', "\u00f4"}, {'{', "\u00e9"}, {'|', "\u00f9"}, {'}', "\u00e8"}, {'~', "\u00fb"}});
const Charset german = make({{'@', "\u00a7"}, {'[', "\u00c4"}, {'\\', "\u00d6"}, {']', "\u00dc"}, {'{', "\u00e4"},
                             {'|', "\u00f6"}, {'}', "\u00fc"}, {'~', "\u00df"}});
const Charset italian = make({{'#', "\u00a3"}, {'@', "\u00a7"}, {'[', "\u00b0"}, {'\\', "\u00e7"}, {']', "\u00e9"},
                              {'`', "\u00f9"}, {'{', "\u00e0"}, {'|', "\u00f2"}, {'}', "\u00e8"}, {'~', "\u00ec"}});
const Charset norwegianDanish = make({{'@', "\u00c4"}, {'[', "\u00c6"}, {'\\', "\u00d8"}, {']', "\u00c5"}, {'^', "\u00dc"},
                                      {'`', "\u00e4"}, {'{', "\u00e6"}, {'|', "\u00f8"}, {'}', "\u00e5"}, {'~', "\u00fc"}});
const Charset spanish = make({{'#', "\u00a3"}, {'@', "\u00a7"}, {'[', "\u00a1"}, {'\\', "\u00d1"}, {']', "\u00bf"},
                              {'{', "\u00b0"}, {'|', "\u00f1"}, {'}', "\u00e7"}});
const Charset swedish = make({{'@', "\u00c9"}, {'[', "\u00c4"}, {'\\', "\u00d6"}, {']', "\u00c5"}, {'^', "\u00dc"},
                              {'`', "\u00e9"}, {'{', "\u00e4"}, {'|', "\u00f6"}, {'}', "\u00e5"}, {'~', "\u00fc"}});
const Charset swiss = make({{'#', "\u00f9"}, {'@', "\u00e0"}, {'[', "\u00e9"}, {'\\', "\u00e7"}, {']', "\u00ea"},
                            {'^', "\u00ee"}, {'_', "\u00e8"}, {'`', "\u00f4"}, {'{', "\u00e4"}, {'|', "\u00f6"},
                            {'}', "\u00fc"}, {'~', "\u00fb"}});

} // namespace

const Charset* charsetForDesignator(unsigned char designator) {
    switch (designator) {
    case '0': case '2': return &decSpecialGraphics;
    case 'A': return &unitedKingdom;
    case 'B': return &unitedStates;
    case '4': return &dutch;
    case '5': case 'C': return &finnish;
    case 'R': return &french;
    case 'Q': return &frenchCanadian;
    case 'K': return &german;
    case 'Y': return &italian;
    case '6': case 'E': return &norwegianDanish;
    case 'Z': return &spanish;
    case '7': case 'H': return &swedish;
    case '=': return &swiss;
    default: return nullptr;
    }
}

unsigned char designatorFor(const Charset* charset) {
    static constexpr unsigned char designators[] = {'0', 'A', 'B', '4', '5', 'R', 'Q', 'K', 'Y', '6', 'Z', '7', '='};
    for (unsigned char designator : designators)
        if (charsetForDesignator(designator) == charset) return designator;
    return 'B';
}

} // namespace vellum
