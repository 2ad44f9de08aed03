#include "FreedesktopFileManager.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QFileInfo>
#include <QUrl>

namespace {

const QString kService = QStringLiteral("org.freedesktop.FileManager1");

QDBusConnectionInterface* busInterface()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    return bus.isConnected() ? bus.interface() : nullptr;
}

} // namespace

FreedesktopFileManager::FreedesktopFileManager()
    : FreedesktopFileManager(sessionBus())
{
}

FreedesktopFileManager::FreedesktopFileManager(Bus bus)
    : m_bus(std::move(bus))
{
}

FreedesktopFileManager::Bus FreedesktopFileManager::sessionBus()
{
    Bus bus;
    bus.isOwned = [](const QString& service) {
        QDBusConnectionInterface* interface = busInterface();
        return interface && interface->isServiceRegistered(service).value();
    };
    bus.isActivatable = [](const QString& service) {
        QDBusConnectionInterface* interface = busInterface();
        return interface && interface->activatableServiceNames().value().contains(service);
    };
    bus.showItems = [](const QString& itemUri) {
        QDBusMessage call = QDBusMessage::createMethodCall(
            kService, QStringLiteral("/org/freedesktop/FileManager1"), kService, QStringLiteral("ShowItems"));
        call << QStringList{itemUri} << QString();
        // No reply is awaited: a slow file manager, or one the bus starts first, must not hold up the
        // window. The call starts an activatable one, as auto-start is on for method calls.
        return QDBusConnection::sessionBus().send(call);
    };
    bus.openFolder = [](const QUrl& folder) { QDesktopServices::openUrl(folder); };
    return bus;
}

void FreedesktopFileManager::selectFile(const QString& path)
{
    if (!askFileManager(path))
        m_bus.openFolder(QUrl::fromLocalFile(QFileInfo(path).absolutePath()));
}

// Many desktops run no file manager until one is needed, yet have the bus start it on the first call:
// only when neither is the case does the item's folder open instead, without the item selected.
bool FreedesktopFileManager::askFileManager(const QString& path) const
{
    if (!m_bus.isOwned(kService) && !m_bus.isActivatable(kService))
        return false;
    return m_bus.showItems(QUrl::fromLocalFile(path).toString());
}
