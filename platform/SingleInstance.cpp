#include "SingleInstance.h"

#include <QLocalServer>
#include <QLocalSocket>
#include <unistd.h>

namespace {
constexpr int kHandOverTimeoutMs = 2000;
const QByteArray kReopen = QByteArrayLiteral("reopen\n");
} // namespace

SingleInstance::SingleInstance(QString name, QObject* parent)
    : QObject(parent)
    , m_name(std::move(name))
{
}

SingleInstance::~SingleInstance() = default;

QString SingleInstance::defaultName()
{
    return QStringLiteral("pelmora-%1").arg(::getuid());
}

bool SingleInstance::handOverToRunningInstance()
{
    QLocalSocket socket;
    socket.connectToServer(m_name);
    if (!socket.waitForConnected(kHandOverTimeoutMs))
        return false;
    socket.write(kReopen);
    return socket.waitForBytesWritten(kHandOverTimeoutMs);
}

bool SingleInstance::listen()
{
    m_server = std::make_unique<QLocalServer>();
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    // Nobody answered on the name: a socket file left by a program that crashed is stale.
    QLocalServer::removeServer(m_name);
    if (!m_server->listen(m_name))
        return false;
    connect(m_server.get(), &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket* socket = m_server->nextPendingConnection()) {
            connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
                if (socket->readAll().contains(kReopen.trimmed()))
                    emit reopenRequested();
            });
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        }
    });
    return true;
}
