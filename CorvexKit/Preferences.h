#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace corvex {

// The app's preference domain as the core sees it: a few value kinds under string keys.
// The app backs it with its settings store; tests and tools use MemoryPreferences.
class Preferences {
public:
    using Dictionary = std::map<std::string, std::string>;

    virtual ~Preferences() = default;

    virtual std::optional<std::string> string(const std::string& key) const = 0;
    virtual void setString(const std::string& key, const std::string& value) = 0;
    // Empty when absent or of another kind.
    virtual std::vector<std::string> stringList(const std::string& key) const = 0;
    virtual void setStringList(const std::string& key, const std::vector<std::string>& value) = 0;
    virtual std::vector<Dictionary> dictionaryList(const std::string& key) const = 0;
    virtual void setDictionaryList(const std::string& key, const std::vector<Dictionary>& value) = 0;
    virtual void remove(const std::string& key) = 0;
};

class MemoryPreferences final : public Preferences {
public:
    std::optional<std::string> string(const std::string& key) const override;
    void setString(const std::string& key, const std::string& value) override;
    std::vector<std::string> stringList(const std::string& key) const override;
    void setStringList(const std::string& key, const std::vector<std::string>& value) override;
    std::vector<Dictionary> dictionaryList(const std::string& key) const override;
    void setDictionaryList(const std::string& key, const std::vector<Dictionary>& value) override;
    void remove(const std::string& key) override;
    bool contains(const std::string& key) const;

private:
    using Value = std::variant<std::string, std::vector<std::string>, std::vector<Dictionary>>;

    template <typename T>
    T get(const std::string& key) const;
    void put(const std::string& key, Value value);

    mutable std::mutex lock_;
    std::map<std::string, Value> values_;
};

} // namespace corvex
