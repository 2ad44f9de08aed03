#include "BackupRoot.h"

#include "Helpers/BundleInfo.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>
#include <sys/stat.h>

QString BackupRoot::applicationDataFolder()
{
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    QDir().mkpath(folder);
    return folder;
}

QString BackupRoot::path()
{
    return applicationDataFolder() + QLatin1Char('/') + QString::fromLatin1(BundleInfo::kBundleName);
}

QString BackupRoot::folderName(const QDateTime& start, const QLocale& locale)
{
    return locale.toString(start.toLocalTime(), QStringLiteral("yyyy.MM.dd-HH.mm.ss"));
}

QString BackupRoot::folderPath(const QDateTime& start, const QLocale& locale)
{
    return path() + QLatin1Char('/') + folderName(start, locale);
}

bool BackupRoot::isRemovableBackupFolder(const QString& folder)
{
    static const QRegularExpression backupName(
        QStringLiteral("^\\d{4}\\.\\d{2}\\.\\d{2}-\\d{2}\\.\\d{2}\\.\\d{2}$"),
        QRegularExpression::UseUnicodePropertiesOption);
    const QFileInfo info(QDir::cleanPath(folder));
    if (!backupName.match(info.fileName()).hasMatch())
        return false;
    struct stat st {};
    if (::lstat(QFile::encodeName(info.filePath()).constData(), &st) != 0 || !S_ISDIR(st.st_mode))
        return false;
    const QString parent = QFileInfo(info.path()).canonicalFilePath();
    return !parent.isEmpty() && parent == QFileInfo(path()).canonicalFilePath();
}
