#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <QByteArray>
#include <QSettings>
#include <QString>
#include <QVariant>

// The per-user preferences store: a QSettings file in a JSON format of its own (typed values, readable by
// a person), with built-in defaults answered from memory and never written.
//
// Every write is flushed at once through QSettings' atomic save (a temporary file renamed over the old
// one), so a crash right after a write keeps it. A file that cannot be parsed is moved aside (nothing is
// lost) and the store starts empty; a stored value of the wrong type reads as absent.
//
// A write that cannot reach the disk (read-only volume, full disk, a folder where the file should be) still
// changes the value for the rest of the session, and the next write that gets through saves it along with
// everything else. Each write says whether it reached the disk, and an observer hears of every failure.
class UserDefaults {
public:
    struct WriteFailure {
        QString filePath;
        QString reason; // the system's words for the cause, e.g. "Permission denied"
    };

    explicit UserDefaults(const QString& filePath);
    ~UserDefaults();

    // $XDG_CONFIG_HOME/Pelmora/Pelmora.json (~/.config when the variable is unset).
    static QString standardFilePath();

    // Set when the file found at start-up could not be read; it was moved to this path.
    QString setAsideFilePath() const { return m_setAsideFilePath; }

    void registerDefaults(const QVariantMap& defaults);

    // The stored value, else the registered default, else an invalid QVariant.
    QVariant objectForKey(const QString& key) const;
    bool boolForKey(const QString& key) const;
    std::optional<QByteArray> dataForKey(const QString& key) const;
    // Absent, or not an array: nothing.
    std::optional<QVariantList> arrayForKey(const QString& key) const;

    // True when the change, and any earlier one that had not yet been saved, is now in the file.
    bool setObjectForKey(const QVariant& value, const QString& key);
    bool setBoolForKey(bool value, const QString& key);
    bool setDataForKey(const QByteArray& value, const QString& key);
    bool removeObjectForKey(const QString& key);

    // The last write's failure; a write that reaches the disk clears it.
    std::optional<WriteFailure> lastWriteFailure() const { return m_lastWriteFailure; }
    // Told of every failed write; whoever shows it to the user decides how often to.
    void setWriteFailureObserver(std::function<void(const WriteFailure&)> observer);

private:
    void open();
    std::unique_ptr<QSettings> makeSettings() const;
    void setAsideUnreadableFile();
    void prepareForWrite();
    bool flush();

    QString m_filePath;
    QString m_setAsideFilePath;
    std::unique_ptr<QSettings> m_settings;
    QVariantMap m_registeredDefaults;
    std::optional<WriteFailure> m_lastWriteFailure;
    std::function<void(const WriteFailure&)> m_writeFailureObserver;
};
