#pragma once

#include "Helpers/FsError.h"
#include "operations/CopyOperation.h"

#include <chrono>
#include <filesystem>
#include <optional>
#include <QDateTime>
#include <QString>
#include <vector>

// One back-up run: counts the iCloud folder, checks that both the iCloud folder's volume and the backup
// root's have room, makes the dated backup folder, marks it unfinished, copies into it, and ends in one
// of the endings below. Whatever it leaves on disk is either a complete backup (with the list of items
// it could not copy kept beside it) or nothing at all.
//
// It does not record the backup: its owner appends the record and then clears the folder's mark
// (UnfinishedMark), so that a crash between the two leaves a folder the next launch removes.
class BackupOperation : public CopyOperation {
    Q_OBJECT

public:
    enum class Ending {
        Running,
        Copied,           // the folder is complete; notCopied() may list items left out
        CanceledCounting, // nothing was written
        Canceled,         // the folder this run made is gone again
        NotEnoughSpace,   // found before copying, or met by the copy (whose folder is then gone)
        Failed,           // the folder could not be made or its list kept: folderError() says why
    };

    BackupOperation(std::filesystem::path source, QDateTime start, QString backupFolder, Copier copier = {},
                    QObject* parent = nullptr);

    // The last complete backup: files it holds unchanged are linked to, not copied again.
    void shareUnchangedFilesWith(std::filesystem::path previousBackup)
    {
        m_previousBackup = std::move(previousBackup);
    }

    void start();

    const QDateTime& startInstant() const { return m_start; }
    const QString& backupFolder() const { return m_backupFolder; }
    // Only a folder this run made may be removed by it: two runs in one second share a folder.
    bool createdFolder() const { return m_createdFolder; }
    Ending ending() const { return m_ending; }
    const std::vector<FsError>& notCopied() const { return m_notCopied; }
    const FsError& folderError() const { return m_folderError; }

    // The quit guard's part: stops everything, waits up to `wait` for the copier to leave the folder,
    // then removes the folder, if this run made it and no record names it.
    void abandonAndRemoveFolder(std::chrono::milliseconds wait, bool recorded);

private:
    void counted(std::uint64_t size, std::int32_t count);
    bool volumeHasRoom(const std::filesystem::path& path) const;
    bool createFolder();
    void copyEnded(const CopyOutcome& outcome) override;
    void keepNotCopiedList(std::vector<FsError> items);
    void removeFolder();
    void removeFolderThenEndWith(Ending ending);
    static void removeCreatedFolder(const std::filesystem::path& folder);
    void endWith(Ending ending);

    std::filesystem::path m_source;
    QDateTime m_start;
    QString m_backupFolder;
    std::filesystem::path m_folderPath;
    std::filesystem::path m_previousBackup;
    bool m_createdFolder = false;
    Ending m_ending = Ending::Running;
    std::vector<FsError> m_notCopied;
    FsError m_folderError;
};
