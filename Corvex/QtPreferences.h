#pragma once

#include <QSettings>

#include "CorvexKit/AppPreferences.h"

namespace corvex {

// The preference domain in Qt's settings file of organisation and application "Corvex".
class QtPreferences final : public PreferenceStore {
public:
    std::optional<std::string> string(const std::string& key) const override;
    std::optional<bool> boolean(const std::string& key) const override;
    std::optional<double> number(const std::string& key) const override;
    std::vector<std::string> stringList(const std::string& key) const override;
    void setStringList(const std::string& key, const std::vector<std::string>& value) override;
    std::vector<Dictionary> dictionaryList(const std::string& key) const override;
    void setDictionaryList(const std::string& key, const std::vector<Dictionary>& value) override;
    bool has(const std::string& key) const override;
    void setString(const std::string& key, const std::string& value) override;
    void setBoolean(const std::string& key, bool value) override;
    void setNumber(const std::string& key, double value) override;
    void remove(const std::string& key) override;

    QSettings& settings() { return settings_; }

private:
    QSettings settings_{"Corvex", "Corvex"};
};

} // namespace corvex
