#include "SCEvent.h"

std::shared_ptr<SCEvent> SCEvent::eventWithEventId(std::uint64_t eventId, const QDateTime& eventDate,
                                                   const QString& eventPath, std::int32_t eventFlags)
{
    return std::make_shared<SCEvent>(eventId, eventDate, eventPath, eventFlags);
}

SCEvent::SCEvent(std::uint64_t eventId, const QDateTime& eventDate, const QString& eventPath,
                 std::int32_t eventFlags)
{
    setEventId(eventId);
    setEventDate(eventDate);
    setEventPath(eventPath);
    setEventFlags(eventFlags);
}

QDateTime SCEvent::eventDate() const
{
    const std::shared_ptr<const QDateTime> date = m_eventDate.load();
    return date ? *date : QDateTime();
}

void SCEvent::setEventDate(const QDateTime& eventDate)
{
    m_eventDate.store(std::make_shared<const QDateTime>(eventDate));
}

QString SCEvent::eventPath() const
{
    const std::shared_ptr<const QString> path = m_eventPath.load();
    return path ? *path : QString();
}

void SCEvent::setEventPath(const QString& eventPath)
{
    m_eventPath.store(std::make_shared<const QString>(eventPath));
}

QString SCEvent::description() const
{
    // The id prints as a signed number; the flag word widens without sign extension.
    const auto signedId = static_cast<qint64>(m_eventId);
    const auto widenedFlags = static_cast<quint64>(static_cast<std::uint32_t>(m_eventFlags));
    return QStringLiteral("<SCEvent { eventId = %1, eventPath = %2, eventFlags = %3 } >")
        .arg(QString::number(signedId), eventPath(), QString::number(widenedFlags));
}
