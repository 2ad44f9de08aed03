#pragma once

#include <QByteArray>
#include <QSettings>
#include <QString>
#include <QVariant>
#include <memory>
#include <optional>

// The per-user preferences store: a QSettings file in a JSON format of its own (typed values, readable by
// a person), with built-in defaults answered from memory and never written.
//
// Every write is flushed at once through QSettings' atomic save (a temporary file renamed over the old
// one), so a crash right after a write keeps it. A file that cannot be parsed is moved aside (nothing is
// lost) and the store starts empty; a stored value of the wrong type reads as absent.
class UserDefaults {
public:
    explicit UserDefaults(const QString& filePath);
    ~UserDefaults();

    // $XDG_CONFIG_HOME/Pelmora/Pelmora.json (~/.config when the variable is unset).
    static QString standardFilePath();

    QString filePath() const;
    // Set when the file found at start-up could not be read; it was moved to this path.
    QString setAsideFilePath() const { return m_setAsideFilePath; }

    void registerDefaults(const QVariantMap& defaults);

    // The stored value, else the registered default, else an invalid QVariant.
    QVariant objectForKey(const QString& key) const;
    bool boolForKey(const QString& key) const;
    std::optional<QByteArray> dataForKey(const QString& key) const;
    // Absent, or not an array: nothing.
    std::optional<QVariantList> arrayForKey(const QString& key) const;

    void setObjectForKey(const QVariant& value, const QString& key);
    void setBoolForKey(bool value, const QString& key);
    void setDataForKey(const QByteArray& value, const QString& key);
    void removeObjectForKey(const QString& key);

private:
    void open();
    void setAsideUnreadableFile();
    void flush();

    QString m_filePath;
    QString m_setAsideFilePath;
    std::unique_ptr<QSettings> m_settings;
    QVariantMap m_registeredDefaults;
};
