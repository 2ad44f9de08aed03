#include "Tool.h"

#include "cli/BackupSchedule.h"
#include "cli/ProgressPrinter.h"
#include "engine/NotCopiedList.h"
#include "engine/RestorePreparation.h"
#include "engine/UnfinishedMark.h"
#include "Helpers/BundleInfo.h"
#include "operations/BackupOperation.h"
#include "operations/BackupRemoval.h"
#include "operations/RestoreOperation.h"
#include "platform/ByteCountFormatter.h"
#include "platform/Notifications.h"
#include "platform/PasswordDatabase.h"
#include "platform/SingleInstance.h"
#include "platform/UserDefaults.h"
#include "store/BackupRoot.h"
#include "store/iCloudPrefs.h"
#include "ui/home/HomeFolderAcquisition.h"
#include "ui/main/AppsUsingiCloud.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <sys/stat.h>

namespace {

std::filesystem::path bytesOf(const QString& path)
{
    return QFile::encodeName(path).toStdString();
}

QString folderName(const BackupRecordRef& record)
{
    return QFileInfo(record->backupFolder().value_or(QString())).fileName();
}

QString dateText(const BackupRecordRef& record)
{
    const std::optional<QDateTime> date = record->backupDate();
    return date ? date->toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")) : QStringLiteral("?");
}

} // namespace

Tool::Tool(Services services, QObject* parent)
    : QObject(parent)
    , m_services(std::move(services))
    , m_backups(m_services.defaults)
{
    m_backups.load();
}

int Tool::run(const ToolArguments& arguments)
{
    switch (arguments.command) {
    case ToolArguments::Command::Help:
        std::fprintf(m_services.out, "%s", qPrintable(ToolArguments::usage()));
        return kDone;
    case ToolArguments::Command::Version:
        std::fprintf(m_services.out, "pelmora %s\n", BundleInfo::kVersion);
        return kDone;
    case ToolArguments::Command::List:
        return list(arguments.json);
    case ToolArguments::Command::Backup: {
        const int status = backUp(arguments);
        if (arguments.notify && status != kDone)
            notifyOfTimersRun(status);
        return status;
    }
    case ToolArguments::Command::Schedule:
        return schedule(arguments);
    case ToolArguments::Command::Restore:
        return restore(arguments);
    case ToolArguments::Command::Delete:
        return remove(arguments);
    case ToolArguments::Command::Compare:
        return compare(arguments);
    }
    return kRefused;
}

void Tool::cancel()
{
    m_cancelled = true;
    if (m_running)
        m_running->cancel();
}

int Tool::refuse(const QString& line)
{
    m_problem = line;
    std::fprintf(m_services.err, "pelmora: %s\n", qPrintable(line));
    return kRefused;
}

int Tool::list(bool json)
{
    if (json) {
        QJsonArray backups;
        for (const BackupRecordRef& record : m_backups.records()) {
            const std::optional<QDateTime> date = record->backupDate();
            backups.append(
                QJsonObject{{QStringLiteral("name"), folderName(record)},
                            {QStringLiteral("folder"), record->backupFolder().value_or(QString())},
                            {QStringLiteral("date"), date ? date->toString(Qt::ISODateWithMs) : QString()},
                            {QStringLiteral("size"), static_cast<qint64>(record->backupSize().value_or(0))}});
        }
        std::fprintf(m_services.out, "%s", QJsonDocument(backups).toJson().constData());
        return kDone;
    }
    if (m_backups.isEmpty())
        std::fprintf(m_services.err, "pelmora: no backups yet\n");
    for (const BackupRecordRef& record : m_backups.records())
        std::fprintf(m_services.out, "%-21s  %-19s  %10s\n", qPrintable(folderName(record)),
                     qPrintable(dateText(record)),
                     qPrintable(ByteCountFormatter::stringFromByteCount(
                         static_cast<std::uint64_t>(record->backupSize().value_or(0)))));
    return kDone;
}

// Outside a sandbox the iCloud folder lies in the process's home, as it does for the window.
std::optional<QString> Tool::iCloudFolder(QString& why) const
{
    const QString home = QDir::homePath();
    if (HomeFolderAcquisition::isSandboxedHome(home, m_services.passwords)) {
        why = QStringLiteral("this process runs in a sandbox and cannot see the home folder");
        return std::nullopt;
    }
    return HomeFolderAcquisition::mobileDocumentsDirectory(home);
}

std::optional<qsizetype> Tool::find(const QString& word) const
{
    if (word == QLatin1String("latest"))
        return m_backups.isEmpty() ? std::nullopt : std::optional<qsizetype>(m_backups.count() - 1);
    for (qsizetype i = m_backups.count() - 1; i >= 0; --i) {
        if (folderName(m_backups.at(i)) == word || m_backups.at(i)->backupFolder() == word)
            return i;
    }
    return std::nullopt;
}

// Never two writers: the window holds the same lock for its whole life.
bool Tool::mayWrite(QString& why) const
{
    if (m_services.instance.claimWithoutAnswering())
        return true;
    why = QStringLiteral("Pelmora's window is open: use it, or quit it first");
    return false;
}

QString Tool::appsInTheWay(const QString& iCloudFolder) const
{
    QStringList names;
    for (const RunningApplication& application :
         AppsUsingiCloud::detect(m_services.runningApplications, iCloudFolder))
        if (!names.contains(application.localizedName))
            names << application.localizedName;
    return names.join(QStringLiteral(", "));
}

void Tool::runToEnd(CopyOperation& operation)
{
    ProgressPrinter printer(m_services.err, m_services.terminal);
    QEventLoop loop;
    connect(&operation, &CopyOperation::progressChanged, &loop, [&] {
        printer.update(operation.currentCountOfCopiedItems(), operation.totalCountOfItemsToCopy(),
                       operation.currentSizeOfCopiedItems(), operation.totalSizeOfItemsToCopy());
    });
    connect(&operation, &CopyOperation::ended, &loop, &QEventLoop::quit);
    m_running = &operation;
    if (m_cancelled)
        operation.cancel();
    if (!operation.hasEnded())
        loop.exec();
    m_running = nullptr;
    printer.finish();
}

void Tool::printItems(const char* heading, const std::vector<FsError>& items) const
{
    if (items.empty())
        return;
    std::fprintf(m_services.err, "%s (%zu):\n%s\n", heading, items.size(),
                 qPrintable(CopyOperation::describeItems(items)));
}

// The iCloud folder, once this run may change it or the backups: nobody else writes, and no application
// that uses the folder runs (unless the user said to go on anyway).
std::optional<QString> Tool::iCloudFolderToWrite(const ToolArguments& arguments, QString& why) const
{
    const std::optional<QString> iCloud = iCloudFolder(why);
    if (!iCloud || !mayWrite(why))
        return std::nullopt;
    if (const QString apps = appsInTheWay(*iCloud); !apps.isEmpty() && !arguments.ignoreRunningApps) {
        why = QStringLiteral("quit the applications that use the iCloud folder first (%1), or pass "
                             "--ignore-running-apps")
                  .arg(apps);
        return std::nullopt;
    }
    return iCloud;
}

int Tool::refuseUnknownBackup(const QString& word)
{
    return refuse(QStringLiteral("no backup named \"%1\"; `pelmora list` shows them").arg(word));
}

int Tool::backUp(const ToolArguments& arguments)
{
    QString why;
    const std::optional<QString> iCloud = iCloudFolderToWrite(arguments, why);
    if (!iCloud)
        return refuse(why);
    const QDateTime start = m_services.now ? m_services.now() : QDateTime::currentDateTime();
    BackupOperation run(bytesOf(*iCloud), start, BackupRoot::folderPath(start));
    if (const BackupRecordRef previous = m_backups.last(); previous && previous->backupFolder())
        run.shareUnchangedFilesWith(bytesOf(*previous->backupFolder()));
    run.start();
    runToEnd(run);
    switch (run.ending()) {
    case BackupOperation::Ending::Copied:
        break;
    case BackupOperation::Ending::CanceledCounting:
    case BackupOperation::Ending::Canceled:
    case BackupOperation::Ending::Running:
        return refuse(QStringLiteral("cancelled; no backup was kept"));
    case BackupOperation::Ending::NotEnoughSpace:
        return refuse(QStringLiteral("not enough free space for a backup of %1")
                          .arg(ByteCountFormatter::stringFromByteCount(run.totalSizeOfItemsToCopy())));
    case BackupOperation::Ending::Failed:
        return refuse(QStringLiteral("the backup folder could not be made: %1: %2")
                          .arg(QFile::decodeName(run.folderError().path.c_str()),
                               QString::fromLocal8Bit(std::strerror(run.folderError().code))));
    }
    record(run);
    std::fprintf(m_services.out, "backed up %s files, %s, to %s\n",
                 qPrintable(QLocale().toString(run.currentCountOfCopiedItems())),
                 qPrintable(ByteCountFormatter::stringFromByteCount(run.currentSizeOfCopiedItems())),
                 qPrintable(run.backupFolder()));
    if (arguments.keep)
        keepNewest(*arguments.keep);
    printItems("not copied", run.notCopied());
    if (run.notCopied().empty())
        return kDone;
    m_problem = QStringLiteral("%1 items could not be copied into %2; `pelmora list` shows the backup")
                    .arg(QLocale().toString(static_cast<qulonglong>(run.notCopied().size())),
                         folderName(m_backups.last()));
    return kDoneWithItemsLeftOut;
}

// As the window does it: the mark comes off once the record is on disk.
void Tool::record(const BackupOperation& run)
{
    const bool saved = m_backups.append(BackupRecord::make(
        run.startInstant(), run.backupFolder(), static_cast<qint64>(run.totalSizeOfItemsToCopy())));
    if (saved && run.createdFolder())
        UnfinishedMark::clear(bytesOf(run.backupFolder()));
    if (!saved)
        std::fprintf(m_services.err, "pelmora: the backup list could not be saved: %s\n",
                     qPrintable(m_services.defaults.lastWriteFailure()
                                    ? m_services.defaults.lastWriteFailure()->reason
                                    : QString()));
}

// The newest backup, just made, always stays: only older ones beyond the count go, oldest first. Two
// backups started within one second share a folder, which stays while a kept record names it.
void Tool::keepNewest(int count)
{
    while (m_backups.count() > count) {
        const BackupRecordRef oldest = m_backups.at(0);
        const QString folder = oldest->backupFolder().value_or(QString());
        const bool stillNamed =
            std::any_of(m_backups.records().begin() + 1, m_backups.records().end(),
                        [&](const BackupRecordRef& kept) { return kept->backupFolder() == folder; });
        const BackupRemoval::Outcome removal =
            stillNamed ? BackupRemoval::Outcome{BackupRemoval::Result::AlreadyGone, {}}
                       : BackupRemoval::removeFolder(folder);
        if (!removal.recordMayGo()) {
            std::fprintf(m_services.err, "pelmora: --keep: %s was not removed\n",
                         qPrintable(folderName(oldest)));
            return;
        }
        m_backups.removeAt(0);
        std::fprintf(m_services.out, "removed the old backup %s\n", qPrintable(folderName(oldest)));
    }
}

int Tool::restore(const ToolArguments& arguments)
{
    const std::optional<qsizetype> index = find(arguments.backup);
    if (!index)
        return refuseUnknownBackup(arguments.backup);
    QString why;
    const std::optional<QString> iCloud = iCloudFolderToWrite(arguments, why);
    if (!iCloud)
        return refuse(why);
    const QString folder = m_backups.at(*index)->backupFolder().value_or(QString());
    struct stat st {};
    if (folder.isEmpty() || ::stat(bytesOf(folder).c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        return refuse(QStringLiteral("the backup's folder %1 is not there").arg(folder));
    RestoreOperation run(bytesOf(folder), bytesOf(*iCloud), bytesOf(BackupRoot::applicationDataFolder()));
    run.start();
    runToEnd(run);
    switch (run.ending()) {
    case RestoreOperation::Ending::Restored:
        break;
    case RestoreOperation::Ending::Running:
    case RestoreOperation::Ending::Canceled:
        return refuse(QStringLiteral("cancelled; what was copied back so far stays"));
    case RestoreOperation::Ending::BackupUnreadable:
        return refuse(QStringLiteral("the backup cannot be read; nothing was touched"));
    case RestoreOperation::Ending::NotEnoughSpace:
        return refuse(QStringLiteral("not enough free space to copy back %1")
                          .arg(ByteCountFormatter::stringFromByteCount(run.totalSizeOfItemsToCopy())));
    case RestoreOperation::Ending::DiskFull:
        printItems("not copied back", run.notCopied());
        return refuse(QStringLiteral("the disk filled up; the restore stopped"));
    }
    std::fprintf(m_services.out, "restored %s from %s: %s files copied back, %lld items moved to the Trash\n",
                 qPrintable(*iCloud), qPrintable(folderName(m_backups.at(*index))),
                 qPrintable(QLocale().toString(run.currentCountOfCopiedItems())),
                 static_cast<long long>(run.pruning().trashed));
    printItems("not copied back", run.notCopied());
    printItems("not moved to the Trash", run.pruning().notRemoved);
    printItems("kept for want of a check", run.pruning().kept);
    printItems("removed for good (no Trash there)", run.pruning().removedForGood);
    return run.didEverything() ? kDone : kDoneWithItemsLeftOut;
}

int Tool::remove(const ToolArguments& arguments)
{
    const std::optional<qsizetype> index = find(arguments.backup);
    if (!index)
        return refuseUnknownBackup(arguments.backup);
    QString why;
    if (!mayWrite(why))
        return refuse(why);
    const BackupRecordRef record = m_backups.at(*index);
    const BackupRemoval::Outcome removal =
        BackupRemoval::removeFolder(record->backupFolder().value_or(QString()));
    if (removal.result == BackupRemoval::Result::NotABackupFolder)
        return refuse(QStringLiteral("%1 is not a backup folder in the backup root; nothing was removed")
                          .arg(record->backupFolder().value_or(QString())));
    if (removal.result == BackupRemoval::Result::PartlyLeft)
        return refuse(QStringLiteral("%1 was only partly removed: %2: %3")
                          .arg(folderName(record), QFile::decodeName(removal.failure.path.c_str()),
                               QString::fromLocal8Bit(std::strerror(removal.failure.code))));
    m_backups.removeAt(*index);
    std::fprintf(m_services.out, "deleted %s\n", qPrintable(folderName(record)));
    return kDone;
}

int Tool::compare(const ToolArguments& arguments)
{
    QString why;
    const std::optional<QString> iCloud = iCloudFolder(why);
    if (!iCloud)
        return refuse(why);
    const std::optional<qsizetype> index = find(arguments.backup);
    if (!index)
        return refuseUnknownBackup(arguments.backup);
    const std::filesystem::path folder = bytesOf(m_backups.at(*index)->backupFolder().value_or(QString()));
    std::vector<std::filesystem::path> neverPrune;
    for (const FsError& item : NotCopiedList::read(folder))
        neverPrune.push_back(item.path);
    const std::atomic<bool> cancelled{false};
    const Comparison comparison =
        RestorePreparation::compare(bytesOf(*iCloud), folder, cancelled, neverPrune);
    if (!comparison.backupReadable)
        return refuse(QStringLiteral("the backup cannot be read"));
    const struct Group {
        const char* mark;
        const char* title;
        const std::vector<ComparedItem>& items;
    } groups[] = {{"+", "added since the backup (a restore moves them to the Trash)", comparison.added},
                  {"~", "changed since the backup (a restore puts the backup's back)", comparison.changed},
                  {"-", "removed since the backup (a restore copies them back)", comparison.removed}};
    for (const Group& group : groups) {
        std::uint64_t bytes = 0;
        for (const ComparedItem& item : group.items) {
            bytes += item.size;
            std::fprintf(m_services.out, "%s %s%s\n", group.mark, item.path.c_str(),
                         item.isFolder ? "/" : "");
        }
        std::fprintf(m_services.err, "%zu %s, %s\n", group.items.size(), group.title,
                     qPrintable(ByteCountFormatter::stringFromByteCount(bytes)));
    }
    return kDone;
}

int Tool::schedule(const ToolArguments& arguments)
{
    BackupSchedule schedule(m_services.toolPath);
    QString why;
    if (arguments.interval == QLatin1String("off") && !schedule.remove(why))
        return refuse(why);
    if (BackupSchedule::isInterval(arguments.interval) && !schedule.install(arguments.interval, why))
        return refuse(why);
    const std::optional<QString> interval = schedule.interval();
    if (!interval) {
        std::fprintf(m_services.out, "scheduled backups: off\n");
        return kDone;
    }
    const QString next = schedule.nextRun();
    std::fprintf(m_services.out, "scheduled backups: %s; next run: %s\n", qPrintable(*interval),
                 qPrintable(next.isEmpty() ? QStringLiteral("unknown (systemd did not say)") : next));
    return kDone;
}

// Nobody watches a timer's run: what went wrong is also a desktop notification, and when no notification
// service answers, the line on stderr (which the journal keeps) is all there is.
void Tool::notifyOfTimersRun(int status)
{
    const QString summary = status == kDoneWithItemsLeftOut
                                ? QStringLiteral("The scheduled backup left items out")
                                : QStringLiteral("The scheduled backup was not made");
    if (m_services.notifications && m_services.notifications->notify(summary, m_problem))
        return;
    std::fprintf(m_services.err, "pelmora: no notification service answered; %s: %s\n", qPrintable(summary),
                 qPrintable(m_problem));
}
