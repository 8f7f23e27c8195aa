#include "CorvexKit/Machine.h"

#include <algorithm>
#include <cstdio>
#include <random>

namespace corvex {

namespace {

constexpr size_t offerListLimit = 50;

std::optional<Machine> decode(const Preferences::Dictionary& entry) {
    auto id = entry.find("id");
    auto target = entry.find("target");
    if (id == entry.end() || target == entry.end()) return std::nullopt;
    auto label = entry.find("label");
    auto off = entry.find("off");
    Machine machine;
    machine.id = id->second;
    machine.target = target->second;
    machine.label = label != entry.end() ? label->second : target->second;
    // Only "1" switches a machine off; anything else, or nothing, leaves it on.
    machine.isEnabled = off == entry.end() || off->second != "1";
    return machine;
}

} // namespace

Machine Machine::local(const std::string& computerName) {
    Machine machine;
    machine.label = computerName.empty() ? "This Computer" : computerName;
    return machine;
}

MachineRegistry::MachineRegistry(Preferences& preferences, std::function<std::string()> computerName,
                                 std::function<void()> didChange)
    : preferences_(preferences), computerName_(std::move(computerName)), didChange_(std::move(didChange)) {}

std::vector<Preferences::Dictionary> MachineRegistry::stored() const { return preferences_.dictionaryList(machinesKey); }

void MachineRegistry::store(const std::vector<Preferences::Dictionary>& entries) {
    preferences_.setDictionaryList(machinesKey, entries);
    if (didChange_) didChange_();
}

std::vector<Machine> MachineRegistry::all() const {
    std::vector<Machine> machines{Machine::local(computerName_ ? computerName_() : std::string())};
    for (const auto& entry : stored()) {
        if (auto machine = decode(entry)) machines.push_back(std::move(*machine));
    }
    return machines;
}

std::vector<Machine> MachineRegistry::enabled() const {
    auto machines = all();
    std::erase_if(machines, [](const Machine& machine) { return !machine.isEnabled; });
    return machines;
}

std::vector<Machine> MachineRegistry::remoteMachines() const {
    auto machines = all();
    machines.erase(machines.begin());
    return machines;
}

std::optional<Machine> MachineRegistry::find(const std::string& key) const {
    for (auto& machine : all()) {
        if (machine.key() == key) return machine;
    }
    return std::nullopt;
}

Machine MachineRegistry::add(const std::string& label, const std::string& target) {
    Machine machine;
    machine.id = makeUUID();
    machine.label = label;
    machine.target = target;
    auto entries = stored();
    entries.push_back({{"id", *machine.id}, {"label", label}, {"target", target}});
    store(entries);
    return machine;
}

bool MachineRegistry::update(const std::string& key, const std::string& label, const std::string& target) {
    auto entries = stored();
    bool targetChanged = false;
    for (auto& entry : entries) {
        if (entry["id"] != key) continue;
        targetChanged = entry["target"] != target;
        entry["label"] = label;
        entry["target"] = target;
    }
    store(entries);
    return targetChanged;
}

void MachineRegistry::setEnabled(const std::string& key, bool on) {
    auto entries = stored();
    for (auto& entry : entries) {
        if (entry["id"] != key) continue;
        if (on) entry.erase("off");
        else entry["off"] = "1";
    }
    store(entries);
}

void MachineRegistry::remove(const std::string& key) {
    auto entries = stored();
    std::erase_if(entries, [&](const Preferences::Dictionary& entry) {
        auto id = entry.find("id");
        return id != entry.end() && id->second == key;
    });
    preferences_.remove("BrowserPath." + key);
    store(entries);
}

void MachineRegistry::move(const std::string& key, size_t to) {
    auto entries = stored();
    auto found = std::find_if(entries.begin(), entries.end(), [&](const Preferences::Dictionary& entry) {
        auto id = entry.find("id");
        return id != entry.end() && id->second == key;
    });
    if (found == entries.end()) return;
    auto entry = *found;
    entries.erase(found);
    entries.insert(entries.begin() + static_cast<long>(std::min(to, entries.size())), std::move(entry));
    store(entries);
}

std::vector<std::string> MachineRegistry::connected() const { return preferences_.stringList(connectedKey); }

void MachineRegistry::markConnected(const std::string& key) {
    auto keys = connected();
    if (std::find(keys.begin(), keys.end(), key) != keys.end()) return;
    keys.push_back(key);
    preferences_.setStringList(connectedKey, keys);
}

void MachineRegistry::markDisconnected(const std::string& key) {
    auto keys = connected();
    std::erase(keys, key);
    preferences_.setStringList(connectedKey, keys);
}

bool rememberOffer(Preferences& preferences, const std::string& list, const std::string& key) {
    auto keys = preferences.stringList(list);
    if (std::find(keys.begin(), keys.end(), key) != keys.end()) return false;
    keys.push_back(key);
    if (keys.size() > offerListLimit) keys.erase(keys.begin(), keys.end() - offerListLimit);
    preferences.setStringList(list, keys);
    return true;
}

std::string makeUUID() {
    std::random_device device;
    std::uniform_int_distribution<unsigned> byte(0, 255);
    unsigned char bytes[16];
    for (auto& value : bytes) value = static_cast<unsigned char>(byte(device));
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40); // version 4
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80); // RFC 4122 variant
    char text[37];
    std::snprintf(text, sizeof text, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", bytes[0],
                  bytes[1], bytes[2], bytes[3], bytes[4], bytes[5], bytes[6], bytes[7], bytes[8], bytes[9], bytes[10],
                  bytes[11], bytes[12], bytes[13], bytes[14], bytes[15]);
    return text;
}

} // namespace corvex
