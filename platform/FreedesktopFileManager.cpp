#include "FreedesktopFileManager.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QFileInfo>
#include <QUrl>

namespace {

const QString kService = QStringLiteral("org.freedesktop.FileManager1");

bool askFileManager(const QString& path)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || !bus.interface() || !bus.interface()->isServiceRegistered(kService).value())
        return false;
    QDBusMessage call = QDBusMessage::createMethodCall(kService, QStringLiteral("/org/freedesktop/FileManager1"),
                                                      kService, QStringLiteral("ShowItems"));
    call << QStringList{QUrl::fromLocalFile(path).toString()} << QString();
    // No reply is awaited: a slow file manager must not hold up the window.
    return bus.send(call);
}

} // namespace

void FreedesktopFileManager::selectFile(const QString& path)
{
    if (!askFileManager(path))
        QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(path).absolutePath()));
}
