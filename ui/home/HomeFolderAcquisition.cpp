#include "HomeFolderAcquisition.h"

#include "Helpers/DirectoryUtility.h"
#include "platform/Bookmark.h"
#include "platform/FolderChooser.h"
#include "platform/Localizer.h"
#include "platform/PasswordDatabase.h"
#include "platform/UserDefaults.h"
#include "store/iCloudPrefs.h"

#include <QDir>
#include <QFile>

HomeFolderAcquisition::HomeFolderAcquisition(UserDefaults& defaults, FolderChooser& chooser,
                                             const PasswordDatabase& passwords)
    : m_defaults(defaults)
    , m_chooser(chooser)
    , m_passwords(passwords)
{
}

bool HomeFolderAcquisition::isSandboxedHome(const QString& processHome, const PasswordDatabase& passwords)
{
    const qsizetype components = 1 + processHome.split(QLatin1Char('/'), Qt::SkipEmptyParts).size();
    if (components <= 3)
        return false;
    const std::optional<std::string> realHome = passwords.realHomeDirectory();
    return !realHome || QDir::cleanPath(QFile::decodeName(realHome->c_str())) != QDir::cleanPath(processHome);
}

QString HomeFolderAcquisition::mobileDocumentsDirectory(const QString& homeDirectory)
{
    QString path = homeDirectory;
    if (!path.endsWith(QLatin1Char('/')))
        path += QLatin1Char('/');
    return path + QStringLiteral("Library/Mobile Documents");
}

HomeFolderOutcome HomeFolderAcquisition::run(bool sandboxed, const QString& processHome)
{
    if (!sandboxed)
        return HomeFolderOutcome{processHome, false};
    // This platform has no security-scoped access to open: a resolved folder is simply used.
    if (iCloudPrefs::isFirstLaunch(m_defaults))
        return askOnFirstLaunch();
    return resolveStoredBookmark();
}

HomeFolderOutcome HomeFolderAcquisition::askOnFirstLaunch()
{
    // Cleared before asking, so the question comes once whatever the answer.
    iCloudPrefs::setFirstLaunch(m_defaults, false);
    const std::optional<QString> chosen =
        m_chooser.chooseFolder(Localizer::localizedStringForKey(QStringLiteral("openPanelTitle")));
    if (!chosen)
        return {};
    const std::optional<std::string> realHome = m_passwords.realHomeDirectory();
    if (!realHome || *chosen != QFile::decodeName(realHome->c_str()))
        return HomeFolderOutcome{std::nullopt, true};
    storeBookmark(*chosen);
    return HomeFolderOutcome{chosen, false};
}

HomeFolderOutcome HomeFolderAcquisition::resolveStoredBookmark()
{
    const std::optional<QByteArray> data = m_defaults.dataForKey(iCloudPrefs::kHomeDirBookmarkDataKey);
    if (!data)
        return {};
    const std::optional<std::filesystem::path> folder = Bookmark::resolve(data->toStdString());
    if (!folder)
        return {};
    return HomeFolderOutcome{QFile::decodeName(folder->c_str()), false};
}

void HomeFolderAcquisition::storeBookmark(const QString& folder)
{
    const std::optional<std::string> data = Bookmark::create(QFile::encodeName(folder).toStdString());
    if (data) // a failed bookmark is not stored; the folder is still used for this launch
        m_defaults.setDataForKey(QByteArray::fromStdString(*data), iCloudPrefs::kHomeDirBookmarkDataKey);
}
