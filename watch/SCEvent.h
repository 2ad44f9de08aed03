#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <QDateTime>
#include <QString>

// The record of one folder change handed to a watcher's listener. The date and the path may be read on
// one thread while another sets them: each is swapped whole, never seen half-written.
class SCEvent {
public:
    static std::shared_ptr<SCEvent> eventWithEventId(std::uint64_t eventId, const QDateTime& eventDate,
                                                     const QString& eventPath, std::int32_t eventFlags);
    SCEvent(std::uint64_t eventId, const QDateTime& eventDate, const QString& eventPath,
            std::int32_t eventFlags);

    std::uint64_t eventId() const { return m_eventId; }
    void setEventId(std::uint64_t eventId) { m_eventId = eventId; }
    QDateTime eventDate() const;
    void setEventDate(const QDateTime& eventDate);
    QString eventPath() const;
    void setEventPath(const QString& eventPath);
    std::int32_t eventFlags() const { return m_eventFlags; }
    void setEventFlags(std::int32_t eventFlags) { m_eventFlags = eventFlags; }

    // "<SCEvent { eventId = 7, eventPath = /a, eventFlags = 16 } >"
    QString description() const;

private:
    std::uint64_t m_eventId = 0;
    std::atomic<std::shared_ptr<const QDateTime>> m_eventDate;
    std::atomic<std::shared_ptr<const QString>> m_eventPath;
    std::int32_t m_eventFlags = 0;
};
