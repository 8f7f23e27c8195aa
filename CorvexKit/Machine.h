#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CorvexKit/Preferences.h"

namespace corvex {

// A computer whose workspaces the app shows: this one, or one reached over ssh.
struct Machine {
    static constexpr std::string_view localKey = "local";

    std::optional<std::string> id; // absent only for this computer
    std::string label;
    std::optional<std::string> target; // the ssh destination
    bool isEnabled = true;

    std::string key() const { return id ? *id : std::string(localKey); }
    bool isLocal() const { return !id; }

    // This computer, named after it ("This Computer" when it has no name).
    static Machine local(const std::string& computerName);

    bool operator==(const Machine&) const = default;
};

// The machines the user added, kept in the preference "Machines" as string dictionaries
// ("id", "label", "target", and "off" = "1" for a switched-off machine), in the user's
// order. Every change rewrites the list and calls didChange.
class MachineRegistry {
public:
    static constexpr const char* machinesKey = "Machines";
    static constexpr const char* connectedKey = "ConnectedMachines";

    MachineRegistry(Preferences& preferences, std::function<std::string()> computerName,
                    std::function<void()> didChange = {});

    // This computer first, then the stored machines; entries without id or target are skipped.
    std::vector<Machine> all() const;
    std::vector<Machine> enabled() const;
    std::vector<Machine> remoteMachines() const;
    std::optional<Machine> find(const std::string& key) const;

    Machine add(const std::string& label, const std::string& target);
    // True when the target changed, which calls for a reconnect.
    bool update(const std::string& key, const std::string& label, const std::string& target);
    void setEnabled(const std::string& key, bool on);
    // Also forgets the machine's file browser folder.
    void remove(const std::string& key);
    // Moves a remote machine to a position among the remote machines.
    void move(const std::string& key, size_t to);

    // ConnectedMachines: remote machines connected when last used.
    std::vector<std::string> connected() const;
    void markConnected(const std::string& key);
    void markDisconnected(const std::string& key);

private:
    std::vector<Preferences::Dictionary> stored() const;
    void store(const std::vector<Preferences::Dictionary>& entries);

    Preferences& preferences_;
    std::function<std::string()> computerName_;
    std::function<void()> didChange_;
};

// Adds a machine to a one-time offer list (HolderRestartOffered, ShellRestartOffered), which
// keeps its last 50 entries. False when the machine was already in it.
bool rememberOffer(Preferences& preferences, const std::string& list, const std::string& key);

// A random UUID in its usual text form.
std::string makeUUID();

} // namespace corvex
