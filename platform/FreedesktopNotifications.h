#pragma once

#include "platform/Notifications.h"

// Notifications through org.freedesktop.Notifications on the session bus.
class FreedesktopNotifications final : public Notifications {
public:
    // `busConnectionName`: an open QDBusConnection's name; empty for the session bus.
    explicit FreedesktopNotifications(QString busConnectionName = {});

    bool notify(const QString& summary, const QString& body) override;

private:
    QString m_busConnectionName;
};
