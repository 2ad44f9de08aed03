#pragma once

#include <QDateTime>
#include <QLocale>
#include <QString>

// Where backups live: one folder per backup, named after the moment it started, directly inside the
// backup root (the user's application-data folder plus the bundle name). Nothing scans this folder; the
// backup list is the only catalogue.
class BackupRoot {
public:
    BackupRoot() = delete;

    // $XDG_DATA_HOME (~/.local/share when unset), created when missing.
    static QString applicationDataFolder();
    static QString path();

    // "yyyy.MM.dd-HH.mm.ss" in local time, with the locale's own digits. Two backups that start within
    // the same second get the same name and so share one folder.
    static QString folderName(const QDateTime& start, const QLocale& locale = QLocale());
    static QString folderPath(const QDateTime& start, const QLocale& locale = QLocale());

    // Whether `folder` is one that Delete may remove: a real folder (not a link) directly inside the
    // backup root, named like a backup ("yyyy.MM.dd-HH.mm.ss", digits of any script). A hand-edited
    // record must never make Delete remove anything else.
    static bool isRemovableBackupFolder(const QString& folder);
};
