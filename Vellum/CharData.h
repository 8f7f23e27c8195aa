#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Vellum/Attribute.h"
#include "Vellum/TinyAtom.h"

namespace vellum {

enum class SemanticPromptKind : uint8_t { initial, right, continuation, secondary };

// What a cell belongs to in shell integration. Stored in a cell as a three-bit code:
// 0 none, 1-4 prompt(initial, right, continuation, secondary), 5 input, 6 output.
struct SemanticContent {
    enum class Kind : uint8_t { prompt, none, input, output };

    Kind kind = Kind::none;
    SemanticPromptKind promptKind = SemanticPromptKind::initial; // meaningful for prompt only

    static constexpr SemanticContent none() { return {}; }
    static constexpr SemanticContent input() { return {Kind::input}; }
    static constexpr SemanticContent output() { return {Kind::output}; }
    static constexpr SemanticContent prompt(SemanticPromptKind k) { return {Kind::prompt, k}; }

    // Codes of 7 and above read as none.
    static constexpr SemanticContent fromCode(uint8_t code) {
        if (code >= 1 && code <= 4) return prompt(SemanticPromptKind(code - 1));
        if (code == 5) return input();
        if (code == 6) return output();
        return none();
    }
    constexpr uint8_t code() const {
        switch (kind) {
        case Kind::prompt: return uint8_t(1 + uint8_t(promptKind));
        case Kind::input: return 5;
        case Kind::output: return 6;
        default: return 0;
        }
    }
    std::string description() const;

    constexpr bool operator==(const SemanticContent& other) const { return code() == other.code(); }
};

const char* promptKindName(SemanticPromptKind kind);

// A cell in unpacked form, for code that prefers convenience over speed.
struct CharData {
    int32_t code = 0; // the scalar; 0 is an empty cell
    // Every scalar of a multi-scalar cluster (code is the first); absent for one scalar.
    std::optional<std::u32string> graphemeScalarValues;
    int8_t width = 1;
    TinyAtom payload;
    uint8_t semanticContentCode = 0;
    uint8_t widthStateCode = 0;
    bool isProtected = false;
    Attribute attribute;

    static const CharData Null;

    CharData() = default;
    CharData(Attribute attr, int32_t scalar, int8_t size = 1) : code(scalar), width(size), attribute(attr) {
        widthStateCode = widthStateFor(size);
    }

    static constexpr uint8_t widthStateFor(int size) { return size == 0 ? 2 : size == 2 ? 1 : 0; }

    // Sets code and width and the width state that follows; drops any cluster.
    void setValue(int32_t newCode, int8_t size);
    // The same from a cluster of scalars: a list is kept only for two or more; none gives code 0.
    void setCharacter(std::u32string_view character, int8_t size);

    // The cluster's scalars; an invalid scalar anywhere gives a single blank.
    std::u32string getCharacter() const;
    // The cluster as UTF-8: an invalid scalar gives " ", an empty list "", code 0 one NUL.
    std::string getText() const;
    std::optional<TinyAtom::Value> getPayload() const { return payload.target(); }
    SemanticContent semanticContent() const { return SemanticContent::fromCode(semanticContentCode); }
    std::string debugDescription() const;

    bool operator==(const CharData&) const = default;
};

inline const CharData CharData::Null{};

} // namespace vellum
