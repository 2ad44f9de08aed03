#include "RestoreOperation.h"

#include "Helpers/CocoaAdditions.h"
#include "engine/RestorePreparation.h"

RestoreOperation::RestoreOperation(std::filesystem::path backup, std::filesystem::path live, Copier copier,
                                   QObject* parent)
    : CopyOperation(std::move(copier), parent)
    , m_backup(std::move(backup))
    , m_live(std::move(live))
{
}

// Pruning comes before the space check and the copy, deliberately: a restore stopped after it leaves the
// live folder without what it removed.
void RestoreOperation::start()
{
    auto canceled = canceledFlag();
    std::filesystem::path live = m_live;
    std::filesystem::path backup = m_backup;
    inBackground<RestoreTotals>(
        [live, backup, canceled] {
            RestorePreparation::pruneLiveFolder(live, backup, *canceled);
            return RestorePreparation::measureFilesToCopy(backup, live, *canceled);
        },
        [this](RestoreTotals totals) { prepared(totals.totalSize, totals.totalCount); });
}

// Equal passes, and so does a query that fails: not knowing is no reason to refuse.
void RestoreOperation::prepared(std::uint64_t size, std::int32_t count)
{
    setTotals(size, count);
    if (isCanceled())
        return endWith(Ending::Canceled);
    FsError error;
    const std::int64_t free = CocoaAdditions::determineFreeSpaceOnDeviceByPath(m_live, &error);
    if (error.code == 0 && static_cast<std::uint64_t>(free) < size)
        return endWith(Ending::NotEnoughSpace);
    startCopy(m_backup, m_live);
}

// Finished, failed or cancelled: the live folder keeps what came back either way.
void RestoreOperation::copyEnded(const CopyOutcome& outcome)
{
    m_notCopied = outcome.notCopied;
    switch (outcome.ending) {
    case CopyOutcome::Ending::Finished:
        return endWith(Ending::Restored);
    case CopyOutcome::Ending::Cancelled:
        return endWith(Ending::Canceled);
    case CopyOutcome::Ending::OutOfSpace:
        return endWith(Ending::NotEnoughSpace);
    }
}

void RestoreOperation::endWith(Ending ending)
{
    m_ending = ending;
    end();
}
