#pragma once

#include <QString>

// Desktop notifications: a message for the user from a program that has no window, shown by the
// desktop's notification service.
class Notifications {
public:
    virtual ~Notifications() = default;
    // False when no notification service answered: the caller must tell the user some other way.
    virtual bool notify(const QString& summary, const QString& body) = 0;
};
