#pragma once

#include "FolderWalk.h"
#include "PollingEventStream.h"
#include "ScheduledEventStream.h"

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

class QSocketNotifier;
class QTimer;
struct inotify_event;

// The event stream on inotify: one watch per folder of the trees, added as folders appear and dropped
// as they go. Changes are reported as the folder that holds the changed entry.
//
// A root follows its path: while nothing is there (missing at the start, deleted, moved away) the
// nearest folder above it that exists is watched for the next missing name to appear, and the watch
// moves down as each one does. A root that goes or comes back is reported with kRootChanged.
//
// Running out of watches is survived: the folders beyond the limit are polled (as the polling stream
// does) and their changes come at the polling period. Running out of descriptors is survived too: what
// is watched keeps being reported, and the description tells how much is not.
class InotifyEventStream final : public ScheduledEventStream, private FolderWalk::Visitor {
public:
    struct Limits {
        // Watches this stream may hold (those that wait for a missing root included), below the kernel's
        // own limit; 0 for the kernel's alone. Lets tests reach the limit without lowering it for every
        // process of the user.
        std::size_t maxWatches = 0;
        // How often the folders beyond the limit are polled; zero for the polling stream's period for
        // the latency.
        std::chrono::milliseconds pollInterval{0};
    };

    // Null when no inotify instance can be had at all (too many open, or too many descriptors).
    static std::unique_ptr<InotifyEventStream> create(const QStringList& paths, double latencySeconds,
                                                      Callback callback);
    static std::unique_ptr<InotifyEventStream> create(const QStringList& paths, double latencySeconds,
                                                      Callback callback, Limits limits);
    ~InotifyEventStream() override;

private:
    struct Root {
        std::string path;
        int wd = -1;
        // While the root is missing: the watch on the nearest folder above it that exists, and the name
        // in that folder that leads to the root.
        int ancestorWd = -1;
        std::string ancestor = {};
        std::string awaitedName = {};
        // Missing, and not even that watch could be had for want of watches: looked for at every poll.
        bool lookedForByPoll = false;
    };

    InotifyEventStream(int fd, const QStringList& paths, double latencySeconds, Callback callback,
                       Limits limits);

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

    void enableNotifier();
    void readEvents();
    void drainEvents();
    void handleEvents(std::size_t size);
    void handleEvent(const inotify_event& event);
    void handleEntryEvent(int wd, const inotify_event& event);
    void handleOverflow();
    bool watchTree(const std::string& path, bool rescan, bool followRootLink = false);
    void watchRoots();
    void followRoot(Root& root, bool rescan);
    int awaitRoot(Root& root);
    bool atWatchLimit() const;
    void releaseAncestor(Root& root);
    void handleAncestorEvent(const inotify_event& event);
    bool isPresent(const Root& root) const;
    int addWatch(int fd, const std::string& path);
    void rememberWatch(int wd, const std::string& path);
    void forgetWatch(int wd);
    void dropSubtree(const std::string& path);
    void dropWatches(const std::vector<int>& wds);
    void noteUnwatched(const std::string& path, int error);
    int rootIndexForWatch(int wd) const;
    void rootChanged(Root& root);
    bool isPolled(const std::string& path) const;
    void pollNewFolders(bool report);
    void pollFolders(bool report);
    void startPollTimer();
    void pollTick();

    int m_fd = -1;
    Limits m_limits;
    std::chrono::milliseconds m_pollInterval;
    QSocketNotifier* m_notifier = nullptr;
    std::vector<Root> m_roots;
    // wd → folder; the index below views these strings, so each path is held once.
    std::unordered_map<int, std::string> m_folders;
    // Sorted by path: a folder's sub-folders are the range between "path/" and "path0".
    std::map<std::string_view, int> m_watchByPath;
    std::vector<char> m_buffer;

    // What the walk under way is for.
    bool m_rescanning = false;
    bool m_folderHasEntries = false;
    std::unordered_set<int>* m_visitedWatches = nullptr;
    int m_lastFolderError = 0;

    // The folders that got no watch for want of watches, and everything under them: the tops of those
    // trees, ordered, and the poll's signatures of all their folders.
    std::set<std::string> m_polledTrees;
    std::vector<std::string> m_newlyPolled;
    PollingEventStream::Snapshot m_polled;
    QTimer* m_pollTimer = nullptr;
    bool m_pollingLogged = false;

    std::size_t m_unwatchedFolders = 0;
    std::string m_unwatchedExample;
    int m_unwatchedError = 0;
};
