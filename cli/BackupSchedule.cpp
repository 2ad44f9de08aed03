#include "BackupSchedule.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSaveFile>
#include <QStandardPaths>

namespace {

constexpr int kSystemctlTimeoutMs = 30000;

bool writeFile(const QString& path, const QString& text, QString& why)
{
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly) && file.write(text.toUtf8()) >= 0 && file.commit())
        return true;
    why = QStringLiteral("%1: %2").arg(path, file.errorString());
    return false;
}

// systemd splits ExecStart= at spaces and reads % and \ itself: a path holding any of them is quoted.
QString quotedForSystemd(QString path)
{
    path.replace(QLatin1String("\\"), QLatin1String("\\\\")).replace(QLatin1String("%"), QLatin1String("%%"));
    return QLatin1Char('"') + path.replace(QLatin1String("\""), QLatin1String("\\\"")) + QLatin1Char('"');
}

} // namespace

bool BackupSchedule::isInterval(const QString& word)
{
    return word == QLatin1String("hourly") || word == QLatin1String("daily") ||
           word == QLatin1String("weekly");
}

BackupSchedule::BackupSchedule(QString toolPath)
    : m_toolPath(std::move(toolPath))
{
}

QString BackupSchedule::unitFolder()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QLatin1String("/systemd/user");
}

std::optional<QString> BackupSchedule::interval() const
{
    QFile timer(unitFolder() + QLatin1Char('/') + QLatin1String(kTimer));
    if (!timer.open(QIODevice::ReadOnly))
        return std::nullopt;
    static const QRegularExpression calendar(QStringLiteral("^OnCalendar=(\\S+)\\s*$"),
                                             QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = calendar.match(QString::fromUtf8(timer.readAll()));
    if (!match.hasMatch())
        return std::nullopt;
    return match.captured(1);
}

bool BackupSchedule::install(const QString& interval, QString& why)
{
    if (!QDir().mkpath(unitFolder())) {
        why = QStringLiteral("%1 cannot be made").arg(unitFolder());
        return false;
    }
    const QString service = QStringLiteral("[Unit]\n"
                                           "Description=Pelmora backup of the iCloud folder\n\n"
                                           "[Service]\n"
                                           "Type=oneshot\n"
                                           "ExecStart=%1 backup --notify\n")
                                .arg(quotedForSystemd(m_toolPath));
    // Persistent: a run missed while the computer was off happens at the next start.
    const QString timer = QStringLiteral("[Unit]\n"
                                         "Description=Pelmora backups, %1\n\n"
                                         "[Timer]\n"
                                         "OnCalendar=%1\n"
                                         "Persistent=true\n\n"
                                         "[Install]\n"
                                         "WantedBy=timers.target\n")
                              .arg(interval);
    const QString folder = unitFolder() + QLatin1Char('/');
    if (!writeFile(folder + QLatin1String(kService), service, why) ||
        !writeFile(folder + QLatin1String(kTimer), timer, why))
        return false;
    if (systemctl({QStringLiteral("daemon-reload")}, why) &&
        systemctl({QStringLiteral("enable"), QStringLiteral("--now"), QLatin1String(kTimer)}, why))
        return true;
    QString ignored;
    remove(ignored);
    return false;
}

bool BackupSchedule::remove(QString& why)
{
    const bool hadTimer = interval().has_value();
    const bool stopped =
        !hadTimer ||
        systemctl({QStringLiteral("disable"), QStringLiteral("--now"), QLatin1String(kTimer)}, why);
    QFile::remove(unitFolder() + QLatin1Char('/') + QLatin1String(kTimer));
    QFile::remove(unitFolder() + QLatin1Char('/') + QLatin1String(kService));
    QString reloadWhy;
    const bool reloaded = !hadTimer || systemctl({QStringLiteral("daemon-reload")}, reloadWhy);
    if (stopped && !reloaded)
        why = reloadWhy;
    return stopped && reloaded;
}

QString BackupSchedule::nextRun() const
{
    QString why;
    QString output;
    if (!systemctl({QStringLiteral("show"), QLatin1String(kTimer),
                    QStringLiteral("--property=NextElapseUSecRealtime"), QStringLiteral("--value")},
                   why, &output))
        return {};
    return output.trimmed();
}

bool BackupSchedule::systemctl(const QStringList& arguments, QString& why, QString* output) const
{
    QProcess process;
    process.start(QStringLiteral("systemctl"), QStringList{QStringLiteral("--user")} + arguments);
    if (!process.waitForFinished(kSystemctlTimeoutMs) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        const QString said = QString::fromLocal8Bit(process.readAllStandardError()).trimmed();
        why = QStringLiteral("systemctl --user %1: %2")
                  .arg(arguments.join(QLatin1Char(' ')),
                       said.isEmpty() ? process.errorString() : said.section(QLatin1Char('\n'), 0, 0));
        return false;
    }
    if (output)
        *output = QString::fromLocal8Bit(process.readAllStandardOutput());
    return true;
}
