#pragma once

#include "FolderWalk.h"
#include "ScheduledEventStream.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <unordered_map>
#include <vector>

class QTimer;

// The event stream for when inotify cannot start: every period the trees are walked and each folder's
// entries (names, types, sizes, times) are boiled down to one signature; the folders whose signature
// changed are reported. Memory holds one path and one number per folder.
class PollingEventStream final : public ScheduledEventStream, private FolderWalk::Visitor {
public:
    // A walk of a whole tree is not cheap: more often than this would keep a disk busy for nothing.
    static constexpr std::chrono::milliseconds kMinimumInterval{1000};

    // Polls once per latency period, and at most once per kMinimumInterval.
    PollingEventStream(const QStringList& paths, double latencySeconds, Callback callback);
    // Polls every `interval`, however short: for tests, which cannot wait seconds for every change.
    PollingEventStream(const QStringList& paths, double latencySeconds, Callback callback,
                       std::chrono::milliseconds interval);
    ~PollingEventStream() override;

private:
    struct Root {
        std::string path;
        bool present = false;
        dev_t device = 0;
        ino_t inode = 0;
    };

    bool beginWatching() override;
    void endWatching() override;
    void collectChanges() override;
    void loopDetached() override;
    QString backendName() const override;
    QString coverageDescription() const override;

    bool enterFolder(int fd, const std::string& path) override;
    void visitEntry(int folderFd, const char* name, unsigned char type) override;
    void leaveFolder(const std::string& path) override;
    void folderFailed(const std::string& path, int error) override;

    void poll();
    void scan(bool report);
    void scanRoot(Root& root);

    std::chrono::milliseconds m_interval;
    QTimer* m_timer = nullptr;
    std::vector<Root> m_roots;
    // Folder → signature, as of the last scan and as the scan under way finds them.
    std::unordered_map<std::string, std::uint64_t> m_signatures;
    std::unordered_map<std::string, std::uint64_t> m_nextSignatures;

    bool m_reporting = false;
    std::uint64_t m_folderSum = 0;
    std::uint64_t m_folderEntries = 0;

    std::size_t m_unreadableFolders = 0;
    std::string m_unreadableExample;
    int m_unreadableError = 0;
};
