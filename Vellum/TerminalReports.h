#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vellum {

// Whether replies use 7-bit introducers (ESC [) or the C1 bytes (0x9B).
enum class CC : uint8_t { sevenBit, eightBit };

std::string_view csiIntroducer(CC cc);
std::string_view dcsIntroducer(CC cc);
std::string_view oscIntroducer(CC cc);
std::string_view stringTerminator(CC cc);

struct VellumBuildInfo {
    std::optional<std::string> tag;
    std::optional<std::string> branch;
    std::string version;
    std::optional<std::string> commit;
    std::optional<bool> hasUncommittedChanges;

    static const VellumBuildInfo& current();
};

// "Vellum 1.99.1-branch+1.99.1:" style identity for XTVERSION, printable ASCII, at most 255 characters.
std::string xtVersionIdentity(const std::optional<std::string>& tag, const std::optional<std::string>& branch,
                              std::string_view version);

// CSI c: the reply for the terminal type, or nothing for types that do not answer.
std::optional<std::string> primaryDeviceAttributesReply(std::string_view termName, bool sixelReported, CC cc);
// CSI > c: always answers.
std::string secondaryDeviceAttributesReply(CC cc);
// CSI > q with parameter 0.
std::string xtVersionReply(CC cc);

// The fixed answers of CSI ? Ps n (those that do not depend on cursor or colour state).
std::optional<std::string> privateDeviceStatusReply(int parameter, int secondParameter, CC cc);

enum class ModeReportValue : int { notRecognized = 0, set = 1, reset = 2, permanentlySet = 3, permanentlyReset = 4 };

// DECRQM's answer: CSI [?] Ps ; Pm $ y, or CSI ;0$y when no mode was given.
std::string modeReport(bool decPrivate, std::optional<int> mode, ModeReportValue value, CC cc);

// DECRQSS's answer: DCS 1 $ r payload ST, or DCS 0 $ r ST for an unknown request.
std::string statusStringReply(const std::optional<std::string>& payload, CC cc);

// XTGETTCAP's answer for a ";"-separated list of hex names; unknown names are skipped, and
// "TN" (544E) is answered from termName. Empty when nothing can be answered.
std::string terminfoCapabilityReplies(std::string_view request, std::string_view termName, CC cc);

// DECRQCRA's checksum over the scalars of an area (blank cells count as 32).
std::string checksumReply(int id, const std::vector<char32_t>& scalars, CC cc);

} // namespace vellum
