#pragma once

#include <optional>
#include <string>
#include <vector>

#include "CorvexKit/Preferences.h"

namespace corvex {

// The application's preference domain with the switches and sizes of the app's own keys.
// Values of the wrong type read as absent.
class PreferenceStore : public Preferences {
public:
    virtual std::optional<bool> boolean(const std::string& key) const = 0;
    virtual std::optional<double> number(const std::string& key) const = 0;
    virtual bool has(const std::string& key) const = 0;
    virtual void setBoolean(const std::string& key, bool value) = 0;
    virtual void setNumber(const std::string& key, double value) = 0;
};

// Preference keys, as the settings file spells them.
namespace prefkey {
inline constexpr const char* appearance = "Appearance";
inline constexpr const char* backend = "Backend";
inline constexpr const char* corvexdPath = "CorvexdPath";
inline constexpr const char* corvexdRuntimeDir = "CorvexdRuntimeDir";
inline constexpr const char* fontSize = "FontSize";
inline constexpr const char* uiScale = "UIScale";
inline constexpr const char* sidebarWidth = "SidebarWidth";
inline constexpr const char* hideSidebar = "HideSidebar";
inline constexpr const char* launchInBackground = "LaunchInBackground";
inline constexpr const char* startFullScreen = "StartFullScreen";
inline constexpr const char* focusedMachine = "FocusedMachine";
inline constexpr const char* connectedMachines = "ConnectedMachines";
inline constexpr const char* machines = "Machines";
inline constexpr const char* collapsedMachines = "CollapsedMachines";
inline constexpr const char* skipCloseConfirm = "SkipCloseConfirm."; // + "Workspace", "Tab", "Pane"
inline constexpr const char* onboardingDone = "OnboardingDone";
inline constexpr const char* windowFrame = "NSWindow Frame CorvexMainWindow";
inline constexpr const char* logModel = "LogModel";
inline constexpr const char* traceFrames = "TraceFrames";
inline constexpr const char* showShortcuts = "ShowShortcuts";
} // namespace prefkey

// The rules by which stored values become what the app uses.
namespace prefs {
inline constexpr double defaultSidebarWidth = 190;
inline constexpr double minSidebarWidth = 150;
inline constexpr double maxSidebarWidth = 640;
inline constexpr double defaultFontSize = 13;

// A positive stored width clamped to 150...640; 190 otherwise.
double sidebarWidth(std::optional<double> stored);
// Rounded to a tenth, kept in 0.8...1.6; 1.0 when absent.
double uiScale(std::optional<double> stored);
// Kept in 8...32; 0 or absent is 13.
double fontSize(std::optional<double> stored);
// "light" or "dark"; anything else follows the system.
std::string appearance(std::optional<std::string> stored);
} // namespace prefs

} // namespace corvex
