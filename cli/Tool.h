#pragma once

#include "cli/ToolArguments.h"
#include "Helpers/FsError.h"
#include "store/BackupRecord.h"
#include "store/BackupStore.h"

#include <cstdio>
#include <functional>
#include <optional>
#include <QDateTime>
#include <QObject>
#include <QString>
#include <vector>

class BackupOperation;
class CopyOperation;
class Notifications;
class PasswordDatabase;
class RunningApplications;
class SingleInstance;
class UserDefaults;

// The command-line tool: the window's backup, restore, delete and list without the window, over the same
// engine, backup list, lock, lists of items not copied and Trash, plus a compare that changes nothing.
//
// Exit status: 0 when everything was done, 1 when it was done but items were left out (not copied, not
// restored), 2 when it was refused or failed. A refusal or failure is one line on stderr.
class Tool : public QObject {
    Q_OBJECT

public:
    static constexpr int kDone = 0;
    static constexpr int kDoneWithItemsLeftOut = 1;
    static constexpr int kRefused = 2;

    struct Services {
        UserDefaults& defaults;
        const RunningApplications& runningApplications;
        const PasswordDatabase& passwords;
        SingleInstance& instance;
        std::FILE* out = stdout;
        std::FILE* err = stderr;
        bool terminal = false; // progress as a bar redrawn in place
        std::function<QDateTime()> now = {};
        // The desktop's notifications, for a timer's run; none: only stderr.
        Notifications* notifications = nullptr;
        // What the timer runs.
        QString toolPath = {};
    };

    explicit Tool(Services services, QObject* parent = nullptr);

    int run(const ToolArguments& arguments);

    // Ctrl+C or SIGTERM: the run under way stops as the window's Cancel stops it.
    void cancel();

private:
    int list(bool json);
    int backUp(const ToolArguments& arguments);
    int restore(const ToolArguments& arguments);
    int remove(const ToolArguments& arguments);
    int compare(const ToolArguments& arguments);
    int schedule(const ToolArguments& arguments);
    void notifyOfTimersRun(int status);

    int refuse(const QString& line);
    std::optional<QString> iCloudFolder(QString& why) const;
    std::optional<QString> iCloudFolderToWrite(const ToolArguments& arguments, QString& why) const;
    int refuseUnknownBackup(const QString& word);
    // The record a BACKUP word names; its index in the list.
    std::optional<qsizetype> find(const QString& word) const;
    bool mayWrite(QString& why) const;
    QString appsInTheWay(const QString& iCloudFolder) const;
    void runToEnd(CopyOperation& operation);
    void record(const BackupOperation& run);
    void keepNewest(int count);
    void printItems(const char* heading, const std::vector<FsError>& items) const;

    Services m_services;
    BackupStore m_backups;
    CopyOperation* m_running = nullptr;
    bool m_cancelled = false;
    // What kept the last command from doing everything, in the words printed on stderr.
    QString m_problem;
};
