#pragma once

#include "engine/RestorePreparation.h"
#include "Helpers/FsError.h"
#include "operations/CopyOperation.h"

#include <filesystem>
#include <vector>

// One restore run: prunes the live folder to what the backup holds (what goes, goes to the user's
// Trash) and counts what is missing, checks that the live folder's volume has room for it, then copies
// the missing items back.
//
// A live item goes only when the backup is known not to hold it: a backup folder that cannot be read
// stops the run before anything is touched, and items the backup never held (its not-copied list) stay.
class RestoreOperation : public CopyOperation {
    Q_OBJECT

public:
    enum class Ending {
        Running,
        Restored, // ran to its end; didEverything() tells whether anything was left undone
        Canceled,
        BackupUnreadable, // nothing was touched
        NotEnoughSpace,   // found before the copy
        DiskFull,         // met by the copy, which stopped
    };

    // `trashHome` is the user's data folder, whose Trash takes what the pruning removes; empty: pruned
    // items are removed for good.
    RestoreOperation(std::filesystem::path backup, std::filesystem::path live,
                     std::filesystem::path trashHome, Copier copier = {}, QObject* parent = nullptr);

    void start();

    const std::filesystem::path& backupFolder() const { return m_backup; }
    Ending ending() const { return m_ending; }
    const PruneOutcome& pruning() const { return m_pruning; }
    const std::vector<FsError>& notCopied() const { return m_notCopied; }
    // Nothing kept for want of a lookup, nothing left that should have gone or come back, nothing removed
    // past the Trash.
    bool didEverything() const;

private:
    struct Preparation {
        PruneOutcome pruning;
        RestoreTotals totals;
    };

    void prepared(const Preparation& preparation);
    void copyEnded(const CopyOutcome& outcome) override;
    void endWith(Ending ending);

    std::filesystem::path m_backup;
    std::filesystem::path m_live;
    std::filesystem::path m_trashHome;
    Ending m_ending = Ending::Running;
    PruneOutcome m_pruning;
    std::vector<FsError> m_notCopied;
};
