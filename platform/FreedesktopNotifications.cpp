#include "FreedesktopNotifications.h"

#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusReply>
#include <QVariantMap>

namespace {

// Long enough for a service the bus has to start; a timer's backup must not hang on a bus that is stuck.
constexpr int kAnswerTimeoutMs = 10000;

} // namespace

FreedesktopNotifications::FreedesktopNotifications(QString busConnectionName)
    : m_busConnectionName(std::move(busConnectionName))
{
}

bool FreedesktopNotifications::notify(const QString& summary, const QString& body)
{
    const QDBusConnection bus =
        m_busConnectionName.isEmpty() ? QDBusConnection::sessionBus() : QDBusConnection(m_busConnectionName);
    if (!bus.isConnected())
        return false;
    QDBusInterface service(QStringLiteral("org.freedesktop.Notifications"),
                           QStringLiteral("/org/freedesktop/Notifications"),
                           QStringLiteral("org.freedesktop.Notifications"), bus);
    service.setTimeout(kAnswerTimeoutMs);
    const QDBusReply<uint> reply =
        service.call(QStringLiteral("Notify"), QStringLiteral("Pelmora"), 0u,
                     QStringLiteral("app.pelmora.Pelmora"), summary, body, QStringList(),
                     QVariantMap{{QStringLiteral("urgency"), QVariant::fromValue<uchar>(1)}}, -1);
    return reply.isValid();
}
