#include "BackupRemoval.h"

#include "engine/NotCopiedList.h"
#include "Helpers/ItemRemover.h"
#include "store/BackupRoot.h"

#include <cerrno>
#include <filesystem>
#include <QFile>
#include <sys/stat.h>

BackupRemoval::Outcome BackupRemoval::removeFolder(const QString& folder)
{
    struct stat st {};
    const std::filesystem::path path = QFile::encodeName(folder).toStdString();
    if (folder.isEmpty() || (::lstat(path.c_str(), &st) != 0 && errno == ENOENT))
        return {Result::AlreadyGone, {}};
    if (!BackupRoot::isRemovableBackupFolder(folder))
        return {Result::NotABackupFolder, {}};
    const std::optional<FsError> failed = ItemRemover::removeItemAtPath(path);
    if (failed && ::lstat(path.c_str(), &st) == 0)
        return {Result::PartlyLeft, *failed};
    NotCopiedList::remove(path);
    return {Result::Removed, {}};
}
