#include "CorvexKit/Preferences.h"

namespace corvex {

template <typename T>
T MemoryPreferences::get(const std::string& key) const {
    std::lock_guard guard(lock_);
    auto found = values_.find(key);
    if (found == values_.end()) return {};
    const T* value = std::get_if<T>(&found->second);
    return value ? *value : T{};
}

void MemoryPreferences::put(const std::string& key, Value value) {
    std::lock_guard guard(lock_);
    values_[key] = std::move(value);
}

std::optional<std::string> MemoryPreferences::string(const std::string& key) const {
    std::lock_guard guard(lock_);
    auto found = values_.find(key);
    if (found == values_.end()) return std::nullopt;
    const auto* value = std::get_if<std::string>(&found->second);
    return value ? std::optional(*value) : std::nullopt;
}

void MemoryPreferences::setString(const std::string& key, const std::string& value) { put(key, value); }

std::vector<std::string> MemoryPreferences::stringList(const std::string& key) const {
    return get<std::vector<std::string>>(key);
}

void MemoryPreferences::setStringList(const std::string& key, const std::vector<std::string>& value) { put(key, value); }

std::vector<Preferences::Dictionary> MemoryPreferences::dictionaryList(const std::string& key) const {
    return get<std::vector<Dictionary>>(key);
}

void MemoryPreferences::setDictionaryList(const std::string& key, const std::vector<Dictionary>& value) {
    put(key, value);
}

void MemoryPreferences::remove(const std::string& key) {
    std::lock_guard guard(lock_);
    values_.erase(key);
}

bool MemoryPreferences::contains(const std::string& key) const {
    std::lock_guard guard(lock_);
    return values_.count(key) > 0;
}

} // namespace corvex
