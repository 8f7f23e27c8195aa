#include "Corvex/QtPreferences.h"

namespace corvex {

namespace {

QString qkey(const std::string& key) {
    return QString::fromStdString(key);
}

} // namespace

std::optional<std::string> QtPreferences::string(const std::string& key) const {
    QVariant value = settings_.value(qkey(key));
    if (!value.isValid() || value.typeId() != QMetaType::QString) return std::nullopt;
    return value.toString().toStdString();
}

std::optional<bool> QtPreferences::boolean(const std::string& key) const {
    QVariant value = settings_.value(qkey(key));
    if (!value.isValid()) return std::nullopt;
    // The settings file keeps everything as text; "true" and "false" are what it writes.
    QString text = value.toString();
    if (value.typeId() == QMetaType::Bool) return value.toBool();
    if (text == "true" || text == "1") return true;
    if (text == "false" || text == "0") return false;
    return std::nullopt;
}

std::optional<double> QtPreferences::number(const std::string& key) const {
    QVariant value = settings_.value(qkey(key));
    if (!value.isValid()) return std::nullopt;
    bool ok = false;
    double number = value.toDouble(&ok);
    if (!ok) return std::nullopt;
    return number;
}

std::vector<std::string> QtPreferences::stringList(const std::string& key) const {
    std::vector<std::string> result;
    for (const QString& item : settings_.value(qkey(key)).toStringList()) result.push_back(item.toStdString());
    return result;
}

void QtPreferences::setStringList(const std::string& key, const std::vector<std::string>& value) {
    QStringList list;
    for (const auto& item : value) list.push_back(QString::fromStdString(item));
    settings_.setValue(qkey(key), list);
}

std::vector<Preferences::Dictionary> QtPreferences::dictionaryList(const std::string& key) const {
    std::vector<Dictionary> result;
    for (const QVariant& item : settings_.value(qkey(key)).toList()) {
        if (item.typeId() != QMetaType::QVariantMap) continue;
        Dictionary entry;
        QVariantMap map = item.toMap();
        for (auto it = map.begin(); it != map.end(); ++it) {
            if (it.value().typeId() == QMetaType::QString) entry[it.key().toStdString()] = it.value().toString().toStdString();
        }
        result.push_back(std::move(entry));
    }
    return result;
}

void QtPreferences::setDictionaryList(const std::string& key, const std::vector<Dictionary>& value) {
    QVariantList list;
    for (const auto& entry : value) {
        QVariantMap map;
        for (const auto& [name, text] : entry) map.insert(QString::fromStdString(name), QString::fromStdString(text));
        list.push_back(map);
    }
    settings_.setValue(qkey(key), list);
}

bool QtPreferences::has(const std::string& key) const {
    return settings_.contains(qkey(key));
}

void QtPreferences::setString(const std::string& key, const std::string& value) {
    settings_.setValue(qkey(key), QString::fromStdString(value));
}

void QtPreferences::setBoolean(const std::string& key, bool value) {
    settings_.setValue(qkey(key), value);
}

void QtPreferences::setNumber(const std::string& key, double value) {
    settings_.setValue(qkey(key), value);
}

void QtPreferences::remove(const std::string& key) {
    settings_.remove(qkey(key));
}

} // namespace corvex
