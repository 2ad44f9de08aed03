#include "FolderSizeWatch.h"

#include "Helpers/DirectoryUtility.h"
#include "operations/Background.h"

#include <QFile>
#include <QThread>

FolderSizeWatch::FolderSizeWatch(const SCEvents::StreamFactory& streamFactory, QObject* parent)
    : QObject(parent)
    , m_events(streamFactory ? std::make_unique<SCEvents>(streamFactory) : std::make_unique<SCEvents>())
{
    m_events->setDelegate(this);
}

FolderSizeWatch::~FolderSizeWatch()
{
    stopMeasuring();
}

void FolderSizeWatch::watch(const QString& folder)
{
    m_events->startWatchingPaths({folder}, QThread::currentThread());
}

void FolderSizeWatch::measure(const QString& folder)
{
    if (m_measuring)
        return;
    m_measuring = true;
    const std::string path = QFile::encodeName(folder).toStdString();
    std::shared_ptr<std::atomic<bool>> stop = m_stop;
    runInBackground(
        this,
        [path, stop] {
            return DirectoryUtility::sizeForDirectoryAtPath(path, nullptr, stop.get()).totalSize;
        },
        [this](std::uint64_t size) {
            m_measuring = false;
            emit measured(size);
        });
}

void FolderSizeWatch::pathWatcherEventOccurred(SCEvents*, const std::shared_ptr<SCEvent>&)
{
    emit folderChanged();
}
