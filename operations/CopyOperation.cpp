#include "CopyOperation.h"

#include "engine/PreviousBackup.h"
#include "operations/ProgressRelay.h"

#include <cstring>
#include <optional>
#include <QFile>
#include <QSemaphore>
#include <QStringList>
#include <sys/stat.h>

CopyOperation::CopyOperation(Copier copier, QObject* parent)
    : QObject(parent)
    , m_copier(copier ? std::move(copier) : Copier(&DirectoryCopier::copyDirectoryAtPath))
    , m_workersDone(std::make_shared<QSemaphore>(0))
{
}

CopyOperation::~CopyOperation() = default;

void CopyOperation::cancel()
{
    m_cancelCopy->store(true);
    m_canceled->store(true);
}

void CopyOperation::abandon()
{
    m_abandon->store(true);
    m_abandon->notify_all();
    cancel();
}

bool CopyOperation::waitForWorkers(std::chrono::milliseconds timeout)
{
    const int outstanding = m_workersStarted - m_workersWaitedFor;
    if (outstanding > 0 && !m_workersDone->tryAcquire(outstanding, static_cast<int>(timeout.count())))
        return false;
    m_workersWaitedFor = m_workersStarted;
    return true;
}

void CopyOperation::setTotals(std::uint64_t size, std::int32_t count)
{
    m_totalSize = size;
    m_totalCount = count;
}

void CopyOperation::startCopy(const std::filesystem::path& source, const std::filesystem::path& destination,
                              const std::filesystem::path& previousBackup)
{
    std::shared_ptr<ProgressRelay> progress = ProgressRelay::create(
        this, [this](const std::filesystem::path& copiedSource) { progressUpdate(copiedSource); });
    auto cancelCopy = m_cancelCopy;
    auto abandon = m_abandon;
    Copier copier = m_copier;
    emit copyingStarted();
    inBackground<CopyOutcome>(
        [copier, source, destination, previousBackup, cancelCopy, abandon, progress] {
            // Its list of items not copied is read here, off the main thread.
            std::optional<PreviousBackup> previous;
            if (!previousBackup.empty())
                previous.emplace(previousBackup);
            return copier(
                source, destination, *cancelCopy,
                [&progress](const std::filesystem::path& copied) { progress->post(copied); }, abandon.get(),
                previous ? &*previous : nullptr);
        },
        // Every update of this copy is applied before its end.
        [this, progress](CopyOutcome outcome) {
            progress->flush();
            copyEnded(outcome);
        });
}

void CopyOperation::progressUpdate(const std::filesystem::path& copiedSource)
{
    ++m_currentCount;
    struct stat st {};
    if (::lstat(copiedSource.c_str(), &st) == 0)
        m_currentSize += static_cast<std::uint64_t>(st.st_size);
    emit progressChanged();
}

void CopyOperation::end()
{
    m_ended = true;
    emit ended();
}

QString CopyOperation::describeItems(const std::vector<FsError>& items)
{
    QStringList lines;
    lines.reserve(static_cast<qsizetype>(items.size()));
    for (const FsError& item : items)
        lines << QStringLiteral("%1: %2").arg(item.path.empty() ? QStringLiteral(".")
                                                                : QFile::decodeName(item.path.c_str()),
                                              QString::fromLocal8Bit(std::strerror(item.code)));
    return lines.join(QLatin1Char('\n'));
}
