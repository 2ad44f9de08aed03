#pragma once

#include "Helpers/FsError.h"

#include <QString>

// Removes one backup's folder, for the window's Delete and the command-line tool's delete and --keep.
// Only a real folder directly in the backup root with a backup's name is ever touched; the list of what
// the backup lacked goes with the folder.
class BackupRemoval {
public:
    BackupRemoval() = delete;

    enum class Result {
        Removed,
        AlreadyGone,      // nothing there: the record may go quietly
        NotABackupFolder, // the record names something else: nothing was removed, and the record stays
        PartlyLeft,       // the removal stopped part-way: the record stays; `failure` says why
    };
    struct Outcome {
        Result result = Result::Removed;
        FsError failure;

        // Whether the record naming the folder may be dropped.
        bool recordMayGo() const { return result == Result::Removed || result == Result::AlreadyGone; }
    };

    static Outcome removeFolder(const QString& folder);
};
