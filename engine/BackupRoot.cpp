#include "BackupRoot.h"

#include "platform/BundleInfo.h"

#include <QDir>
#include <QStandardPaths>

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
