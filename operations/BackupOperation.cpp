#include "BackupOperation.h"

#include "engine/NotCopiedList.h"
#include "engine/UnfinishedMark.h"
#include "Helpers/CocoaAdditions.h"
#include "Helpers/DirectoryUtility.h"
#include "Helpers/ItemRemover.h"
#include "operations/Logging.h"

#include <cerrno>
#include <QFile>
#include <sys/stat.h>

namespace {

// The backup root may not exist yet: its volume is the one of the nearest folder that does.
std::filesystem::path nearestExisting(std::filesystem::path path)
{
    struct stat st {};
    while (!path.empty() && ::stat(path.c_str(), &st) != 0 && path != path.root_path())
        path = path.parent_path();
    return path;
}

bool isOutOfSpace(int code)
{
    return code == ENOSPC || code == EDQUOT;
}

} // namespace

BackupOperation::BackupOperation(std::filesystem::path source, QDateTime start, QString backupFolder,
                                 Copier copier, QObject* parent)
    : CopyOperation(std::move(copier), parent)
    , m_source(std::move(source))
    , m_start(std::move(start))
    , m_backupFolder(std::move(backupFolder))
    , m_folderPath(QFile::encodeName(m_backupFolder).toStdString())
{
}

void BackupOperation::start()
{
    auto canceled = canceledFlag();
    auto abandon = abandonFlag();
    std::filesystem::path source = m_source;
    // Cancelling stops the counting, not the walk: the pass still runs to its end, unless quitting.
    inBackground<FolderMeasure>(
        [source, canceled, abandon] {
            return DirectoryUtility::sizeForDirectoryAtPath(source, canceled.get(), abandon.get());
        },
        [this](FolderMeasure measure) { counted(measure.totalSize, measure.totalFilesCount); });
}

void BackupOperation::counted(std::uint64_t size, std::int32_t count)
{
    setTotals(size, count);
    if (isCanceled())
        return endWith(Ending::CanceledCounting);
    if (!volumeHasRoom(m_source) || !volumeHasRoom(nearestExisting(m_folderPath.parent_path())))
        return endWith(Ending::NotEnoughSpace);
    if (!createFolder())
        return endWith(Ending::Failed);
    startCopy(m_source, m_folderPath, m_previousBackup);
}

// Equal passes, and so does a query that fails: not knowing is no reason to refuse.
bool BackupOperation::volumeHasRoom(const std::filesystem::path& path) const
{
    FsError error;
    const std::int64_t free = CocoaAdditions::determineFreeSpaceOnDeviceByPath(path, &error);
    return error.code != 0 || static_cast<std::uint64_t>(free) >= totalSizeOfItemsToCopy();
}

// The root is made as needed; the backup folder itself exclusively, so that this run knows whether the
// folder is its own. One already there (a run in the same second) is shared, as before, but never
// removed by this run.
bool BackupOperation::createFolder()
{
    std::error_code error;
    std::filesystem::create_directories(m_folderPath.parent_path(), error);
    if (::mkdir(m_folderPath.c_str(), 0755) == 0) {
        m_createdFolder = true;
    } else if (errno != EEXIST) {
        m_folderError = FsError{"mkdir", m_folderPath, errno};
        return false;
    }
    struct stat st {};
    if (::lstat(m_folderPath.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        m_folderError = FsError{"mkdir", m_folderPath, EEXIST};
        return false;
    }
    if (!m_createdFolder)
        return true;
    if (std::optional<FsError> marked = UnfinishedMark::set(m_folderPath)) {
        m_folderError = *marked;
        removeFolder();
        return false;
    }
    return true;
}

void BackupOperation::copyEnded(const CopyOutcome& outcome)
{
    switch (outcome.ending) {
    case CopyOutcome::Ending::Finished:
        keepNotCopiedList(outcome.notCopied);
        return;
    case CopyOutcome::Ending::Cancelled:
        return removeFolderThenEndWith(Ending::Canceled);
    case CopyOutcome::Ending::OutOfSpace:
        return removeFolderThenEndWith(Ending::NotEnoughSpace);
    }
}

// A partial copy can hold many thousands of files: they go on the pool, and the run ends (the progress
// window with it) once they are gone.
void BackupOperation::removeFolderThenEndWith(Ending ending)
{
    if (!m_createdFolder)
        return endWith(ending);
    std::filesystem::path folder = m_folderPath;
    inBackground<bool>(
        [folder] {
            removeCreatedFolder(folder);
            return true;
        },
        [this, ending](bool) { endWith(ending); });
}

// A list that cannot be kept would let a later restore take the missing items for deleted ones, so the
// backup is not kept either.
void BackupOperation::keepNotCopiedList(std::vector<FsError> items)
{
    m_notCopied = std::move(items);
    if (m_notCopied.empty())
        return endWith(Ending::Copied);
    if (std::optional<FsError> error = NotCopiedList::write(m_folderPath, m_notCopied)) {
        if (m_createdFolder)
            removeFolder();
        m_folderError = *error;
        return endWith(isOutOfSpace(error->code) ? Ending::NotEnoughSpace : Ending::Failed);
    }
    endWith(Ending::Copied);
}

void BackupOperation::removeFolder()
{
    if (m_createdFolder)
        removeCreatedFolder(m_folderPath);
}

// The mark goes last: a removal cut short is finished by the next launch.
void BackupOperation::removeCreatedFolder(const std::filesystem::path& folder)
{
    const std::optional<FsError> failed = ItemRemover::removeItemAtPath(folder);
    NotCopiedList::remove(folder);
    if (!failed || failed->code == ENOENT) {
        UnfinishedMark::clear(folder);
        return;
    }
    qCInfo(lcBackup) << "unfinished backup folder left for the next launch:" << failed->describe().c_str();
}

void BackupOperation::abandonAndRemoveFolder(std::chrono::milliseconds wait, bool recorded)
{
    abandon();
    if (!waitForWorkers(wait))
        qCInfo(lcBackup) << "the copy had not stopped after" << wait.count()
                         << "ms; removing its folder anyway";
    if (!recorded)
        removeFolder();
}

void BackupOperation::endWith(Ending ending)
{
    m_ending = ending;
    end();
}
