#include "Vellum/CharData.h"

#include "Platform/Unicode.h"

namespace vellum {

using platform::unicode::isScalarValue;

const char* promptKindName(SemanticPromptKind kind) {
    switch (kind) {
    case SemanticPromptKind::initial: return "initial";
    case SemanticPromptKind::right: return "right";
    case SemanticPromptKind::continuation: return "continuation";
    case SemanticPromptKind::secondary: return "secondary";
    }
    return "initial";
}

std::string SemanticContent::description() const {
    switch (kind) {
    case Kind::prompt: return std::string("prompt(") + promptKindName(promptKind) + ")";
    case Kind::input: return "input";
    case Kind::output: return "output";
    default: return "none";
    }
}

void CharData::setValue(int32_t newCode, int8_t size) {
    code = newCode;
    width = size;
    graphemeScalarValues.reset();
    widthStateCode = widthStateFor(size);
}

void CharData::setCharacter(std::u32string_view character, int8_t size) {
    setValue(character.empty() ? 0 : int32_t(character.front()), size);
    if (character.size() >= 2) graphemeScalarValues.emplace(character);
}

std::u32string CharData::getCharacter() const {
    if (graphemeScalarValues) {
        std::u32string out;
        for (char32_t scalar : *graphemeScalarValues) {
            if (!isScalarValue(scalar)) return U" ";
            out.push_back(scalar);
        }
        return out;
    }
    if (code < 0 || !isScalarValue(uint32_t(code))) return U" ";
    return std::u32string(1, char32_t(code));
}

std::string CharData::getText() const {
    return platform::unicode::encodeUtf8(getCharacter());
}

std::string CharData::debugDescription() const {
    std::string out = "CharData: " + std::to_string(code) + " ";
    if (code >= 0 && isScalarValue(uint32_t(code))) {
        platform::unicode::appendUtf8(out, char32_t(code));
    } else {
        out += "?";
    }
    return out;
}

} // namespace vellum
