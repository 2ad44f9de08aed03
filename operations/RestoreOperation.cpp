#include "RestoreOperation.h"

#include "engine/NotCopiedList.h"
#include "engine/Trash.h"
#include "Helpers/CocoaAdditions.h"

#include <memory>

RestoreOperation::RestoreOperation(std::filesystem::path backup, std::filesystem::path live,
                                   std::filesystem::path trashHome, Copier copier, QObject* parent)
    : CopyOperation(std::move(copier), parent)
    , m_backup(std::move(backup))
    , m_live(std::move(live))
    , m_trashHome(std::move(trashHome))
{
}

// Pruning comes before the space check and the copy, deliberately: a restore stopped after it leaves the
// live folder without what it moved to the Trash.
void RestoreOperation::start()
{
    auto canceled = canceledFlag();
    std::filesystem::path live = m_live;
    std::filesystem::path backup = m_backup;
    std::filesystem::path trashHome = m_trashHome;
    inBackground<Preparation>(
        [live, backup, trashHome, canceled] {
            Preparation preparation;
            std::unique_ptr<Trash> trash = trashHome.empty() ? nullptr : std::make_unique<Trash>(trashHome);
            PruneOptions options;
            options.trash = trash.get();
            for (FsError& item : NotCopiedList::read(backup))
                options.neverPrune.push_back(std::move(item.path));
            preparation.pruning = RestorePreparation::pruneLiveFolder(live, backup, *canceled, options);
            if (preparation.pruning.backupReadable)
                preparation.totals = RestorePreparation::measureFilesToCopy(backup, live, *canceled);
            return preparation;
        },
        [this](Preparation preparation) { prepared(preparation); });
}

// Equal passes, and so does a query that fails: not knowing is no reason to refuse.
void RestoreOperation::prepared(const Preparation& preparation)
{
    m_pruning = preparation.pruning;
    setTotals(preparation.totals.totalSize, preparation.totals.totalCount);
    if (!m_pruning.backupReadable)
        return endWith(Ending::BackupUnreadable);
    if (isCanceled())
        return endWith(Ending::Canceled);
    FsError error;
    const std::int64_t free = CocoaAdditions::determineFreeSpaceOnDeviceByPath(m_live, &error);
    if (error.code == 0 && static_cast<std::uint64_t>(free) < preparation.totals.totalSize)
        return endWith(Ending::NotEnoughSpace);
    startCopy(m_backup, m_live);
}

// Finished, cancelled or stopped by a full disk: the live folder keeps what came back either way.
void RestoreOperation::copyEnded(const CopyOutcome& outcome)
{
    m_notCopied = outcome.notCopied;
    switch (outcome.ending) {
    case CopyOutcome::Ending::Finished:
        return endWith(Ending::Restored);
    case CopyOutcome::Ending::Cancelled:
        return endWith(Ending::Canceled);
    case CopyOutcome::Ending::OutOfSpace:
        return endWith(Ending::DiskFull);
    }
}

bool RestoreOperation::didEverything() const
{
    return m_ending != Ending::DiskFull && m_notCopied.empty() && m_pruning.kept.empty() &&
           m_pruning.notRemoved.empty() && m_pruning.removedForGood.empty();
}

void RestoreOperation::endWith(Ending ending)
{
    m_ending = ending;
    end();
}
