#include "Vellum/TerminalReports.h"

#include <cstdio>

#include "Vellum/TerminfoReplies.h"

namespace vellum {

namespace {

std::string printableAscii(std::string_view text) {
    std::string out;
    for (char c : text)
        if (c >= 0x20 && c < 0x7f) out.push_back(c);
    return out;
}

std::string hexEncode(std::string_view text) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        out.push_back(digits[c >> 4]);
        out.push_back(digits[c & 15]);
    }
    return out;
}

std::string dcs(std::string_view body, CC cc) {
    std::string out(dcsIntroducer(cc));
    out += body;
    out += stringTerminator(cc);
    return out;
}

std::string csi(std::string_view body, CC cc) {
    std::string out(csiIntroducer(cc));
    out += body;
    return out;
}

} // namespace

std::string_view csiIntroducer(CC cc) { return cc == CC::eightBit ? "\x9b" : "\x1b["; }
std::string_view dcsIntroducer(CC cc) { return cc == CC::eightBit ? "\x90" : "\x1bP"; }
std::string_view oscIntroducer(CC cc) { return cc == CC::eightBit ? "\x9d" : "\x1b]"; }
std::string_view stringTerminator(CC cc) { return cc == CC::eightBit ? "\x9c" : "\x1b\\"; }

const VellumBuildInfo& VellumBuildInfo::current() {
    static const VellumBuildInfo info{std::string("v1.99.1"), std::nullopt, "v1.99.1", std::nullopt, std::nullopt};
    return info;
}

std::string xtVersionIdentity(const std::optional<std::string>& tag, const std::optional<std::string>& branch,
                              std::string_view version) {
    std::string identity = "Vellum";
    std::string cleanTag = printableAscii(tag.value_or(""));
    if (cleanTag.starts_with("v")) cleanTag.erase(0, 1);
    if (!cleanTag.empty()) identity += " " + cleanTag;
    std::string cleanBranch = printableAscii(branch.value_or(""));
    if (!cleanBranch.empty()) identity += "-" + cleanBranch;
    std::string cleanVersion = printableAscii(version);
    if (!cleanVersion.empty() && cleanVersion != "unknown") identity += "+" + cleanVersion;
    if (identity.size() > 254) identity.resize(254);
    return identity + ":";
}

std::optional<std::string> primaryDeviceAttributesReply(std::string_view termName, bool sixelReported, CC cc) {
    if (termName.starts_with("xterm"))
        return csi(sixelReported ? "?65;4;1;2;6;21;22;17;28c" : "?65;1;2;6;21;22;17;28c", cc);
    if (termName.starts_with("screen") || termName.starts_with("rxvt-unicode")) return csi("?1;2c", cc);
    if (termName.starts_with("linux")) return csi("?6c", cc);
    return std::nullopt;
}

std::string secondaryDeviceAttributesReply(CC cc) { return csi(">65;20;1c", cc); }

std::string xtVersionReply(CC cc) {
    const auto& info = VellumBuildInfo::current();
    return dcs(">|" + xtVersionIdentity(info.tag, info.branch, info.version), cc);
}

std::optional<std::string> privateDeviceStatusReply(int parameter, int secondParameter, CC cc) {
    switch (parameter) {
    case 15: return csi("?10n", cc);
    case 25: return csi("?21n", cc);
    case 26: return csi("?27;1;0;0n", cc);
    case 53: return csi("?53n", cc);
    case 56: return csi("?57;1n", cc);
    case 62: return csi("0*{", cc);
    case 63: return dcs(std::to_string(secondParameter) + "!~0000", cc);
    case 75: return csi("?70n", cc);
    case 85: return csi("?83n", cc);
    default: return std::nullopt;
    }
}

std::string modeReport(bool decPrivate, std::optional<int> mode, ModeReportValue value, CC cc) {
    if (!mode) return csi(decPrivate ? "?;0$y" : ";0$y", cc);
    std::string body = decPrivate ? "?" : "";
    body += std::to_string(*mode) + ";" + std::to_string(static_cast<int>(value)) + "$y";
    return csi(body, cc);
}

std::string statusStringReply(const std::optional<std::string>& payload, CC cc) {
    return payload ? dcs("1$r" + *payload, cc) : dcs("0$r", cc);
}

std::string terminfoCapabilityReplies(std::string_view request, std::string_view termName, CC cc) {
    std::string out;
    size_t start = 0;
    while (start <= request.size()) {
        size_t end = request.find(';', start);
        if (end == std::string_view::npos) end = request.size();
        if (auto key = normalizedXtgettcapKey(request.substr(start, end - start))) {
            if (*key == "544E") {
                if (!termName.empty() && termName.size() <= 128) out += dcs("1+r544E=" + hexEncode(termName), cc);
            } else if (auto reply = xtgettcapReply(*key)) {
                out += dcs("1+r" + std::string(*reply), cc);
            }
        }
        start = end + 1;
    }
    return out;
}

std::string checksumReply(int id, const std::vector<char32_t>& scalars, CC cc) {
    uint32_t sum = 0;
    for (char32_t scalar : scalars) sum += scalar == 0 ? 32 : static_cast<uint32_t>(scalar);
    char hex[8];
    std::snprintf(hex, sizeof hex, "%04X", static_cast<unsigned>((0u - sum) & 0xFFFF));
    return dcs(std::to_string(id) + "!~" + hex, cc);
}

} // namespace vellum
