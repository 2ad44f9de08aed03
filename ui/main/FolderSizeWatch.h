#pragma once

#include "watch/SCEvents.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <QObject>

// Keeps the size of the iCloud folder current for the window: a watcher on the folder whose every change
// asks for a new measure, and the measure itself, off the main thread and never two at once.
class FolderSizeWatch : public QObject, public SCEventListenerProtocol {
    Q_OBJECT

public:
    // An empty factory watches with the platform's stream.
    explicit FolderSizeWatch(const SCEvents::StreamFactory& streamFactory, QObject* parent = nullptr);
    ~FolderSizeWatch() override;

    // Watches `folder` from now on; a second start while watching is refused by the watcher.
    void watch(const QString& folder);
    // Measures `folder` in the background, unless a measure runs: the one under way sees the folder as it
    // is now, so the request is dropped rather than queued.
    void measure(const QString& folder);
    bool isMeasuring() const { return m_measuring; }
    // Measures under way give up their walk, and none starts any more: for the quit and the teardown.
    void stopMeasuring() { m_stop->store(true); }
    SCEvents* events() const { return m_events.get(); }

    void pathWatcherEventOccurred(SCEvents* pathWatcher, const std::shared_ptr<SCEvent>& event) override;

signals:
    void folderChanged();
    void measured(std::uint64_t totalSize);

private:
    std::unique_ptr<SCEvents> m_events;
    bool m_measuring = false;
    // Read by the measures, so that quitting does not wait for one to finish.
    std::shared_ptr<std::atomic<bool>> m_stop = std::make_shared<std::atomic<bool>>(false);
};
