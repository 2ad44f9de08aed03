#pragma once

#include <QProcess>
#include <QStandardPaths>

// A session bus of the test's own, so that nothing on the developer's desktop is asked or told anything;
// it ends with the object.
class PrivateSessionBus {
public:
    static bool available()
    {
        return !QStandardPaths::findExecutable(QStringLiteral("dbus-daemon")).isEmpty();
    }

    PrivateSessionBus()
    {
        m_daemon.start(QStringLiteral("dbus-daemon"), {"--session", "--nofork", "--print-address"});
        if (m_daemon.waitForStarted(5000) && m_daemon.waitForReadyRead(5000))
            m_address = QString::fromUtf8(m_daemon.readLine().trimmed());
    }
    ~PrivateSessionBus()
    {
        m_daemon.terminate();
        m_daemon.waitForFinished(5000);
    }
    PrivateSessionBus(const PrivateSessionBus&) = delete;
    PrivateSessionBus& operator=(const PrivateSessionBus&) = delete;

    // Empty when the bus did not start.
    QString address() const { return m_address; }

private:
    QProcess m_daemon;
    QString m_address;
};
