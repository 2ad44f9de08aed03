#pragma once

#include <functional>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>

// Runs the event loop until `done` holds or the bound passes; answers whether it held.
inline bool runEventLoopUntil(const std::function<bool()>& done, int boundMs = 5000)
{
    QDeadlineTimer deadline(boundMs);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 10);
    }
    return true;
}
