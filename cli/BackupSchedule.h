#pragma once

#include <optional>
#include <QString>
#include <QStringList>

// Backups on a timer: a systemd user timer and the service it starts, which runs `pelmora backup
// --notify`, kept as two unit files in the user's systemd folder ($XDG_CONFIG_HOME/systemd/user). The
// timer's OnCalendar line is the schedule's only record, so what `schedule` prints is what systemd runs.
class BackupSchedule {
public:
    static constexpr const char* kTimer = "pelmora-backup.timer";
    static constexpr const char* kService = "pelmora-backup.service";

    // "hourly", "daily" or "weekly", as systemd's calendar shorthands name them.
    static bool isInterval(const QString& word);

    explicit BackupSchedule(QString toolPath);

    // The interval in the installed timer, if there is one.
    std::optional<QString> interval() const;
    // Writes both units, reloads systemd and starts the timer; false with `why` set when systemd refused
    // (the units are then removed again, so nothing half-made stays).
    bool install(const QString& interval, QString& why);
    bool remove(QString& why);
    // When systemd will run the backup next, as systemd says it; empty when it does not say.
    QString nextRun() const;

private:
    static QString unitFolder();
    bool systemctl(const QStringList& arguments, QString& why, QString* output = nullptr) const;

    QString m_toolPath;
};
