#pragma once

#include "FolderWalk.h"
#include "ScheduledEventStream.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <unordered_map>
#include <vector>

class QTimer;

// The event stream for when inotify cannot start: every period the trees are walked and each folder's
// entries (names, types, sizes, times) are boiled down to one signature; the folders whose signature
// changed are reported. Memory holds one path and one number per folder.
class PollingEventStream final : public ScheduledEventStream {
public:
    // A walk of a whole tree is not cheap: more often than this would keep a disk busy for nothing.
    static constexpr std::chrono::milliseconds kMinimumInterval{1000};

    // The signatures of the folders of some trees, and which of them changed since the last scan. The
    // inotify stream polls with it the folders it has no watch for.
    class Snapshot final : private FolderWalk::Visitor {
    public:
        using Changed = std::function<void(const std::string& folder)>;

        // A scan: begin(), scan() for each tree, finish(). What the scanned trees no longer hold is
        // forgotten at finish(). With `changed`, each folder whose signature differs from before, and each
        // new folder that holds something, is passed to it; without, the signatures are taken in silence.
        void begin(Changed changed);
        // 0, or why the tree's top folder could not be opened (the tree is then left out).
        int scan(const std::string& root, bool followRootLink);
        void finish();
        // Takes in one more tree outside a scan, reporting as begin() would.
        void add(const std::string& root, Changed changed);
        // Lets go of a folder and everything under it.
        void forget(const std::string& root);
        void clear();

        std::size_t folderCount() const { return m_signatures.size(); }
        // Folders the last scan could not read, for a description; empty when there were none.
        QString unreadableDescription() const;

    private:
        bool enterFolder(int fd, const std::string& path) override;
        void visitEntry(int folderFd, const char* name, unsigned char type) override;
        void leaveFolder(const std::string& path) override;
        void folderFailed(const std::string& path, int error) override;

        // Folder → signature, as of the last scan and as the scan under way finds them.
        std::unordered_map<std::string, std::uint64_t> m_signatures;
        std::unordered_map<std::string, std::uint64_t> m_nextSignatures;
        Changed m_changed;
        int m_lastError = 0;

        std::uint64_t m_folderSum = 0;
        std::uint64_t m_folderEntries = 0;

        std::size_t m_unreadableFolders = 0;
        std::string m_unreadableExample;
        int m_unreadableError = 0;
    };

    // Polls once per latency period, and at most once per kMinimumInterval.
    PollingEventStream(const QStringList& paths, double latencySeconds, Callback callback);
    // Polls every `interval`, however short: for tests, which cannot wait seconds for every change.
    PollingEventStream(const QStringList& paths, double latencySeconds, Callback callback,
                       std::chrono::milliseconds interval);
    ~PollingEventStream() override;

    // The period for a latency: the latency itself, but not below kMinimumInterval.
    static std::chrono::milliseconds intervalForLatency(double latencySeconds);

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

    void poll();
    void scan(bool report);
    void scanRoot(Root& root, bool report);

    std::chrono::milliseconds m_interval;
    QTimer* m_timer = nullptr;
    std::vector<Root> m_roots;
    Snapshot m_snapshot;
};
