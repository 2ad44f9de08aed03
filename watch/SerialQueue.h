#pragma once

#include <mutex>
#include <QString>
#include <utility>

// A private serial queue with synchronous dispatch only: the body runs on the caller's thread while the
// caller waits, and no two bodies ever overlap, whichever threads they come from.
class SerialQueue {
public:
    explicit SerialQueue(QString label)
        : m_label(std::move(label))
    {
    }

    const QString& label() const { return m_label; }

    template<typename Body>
    auto sync(Body&& body)
    {
        std::lock_guard<std::mutex> serialised(m_mutex);
        return std::forward<Body>(body)();
    }

private:
    QString m_label;
    std::mutex m_mutex;
};
