#pragma once

#include "FolderWalk.h"
#include "ScheduledEventStream.h"

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

class QSocketNotifier;
struct inotify_event;

// The event stream on inotify: one watch per folder of the trees, added as folders appear and dropped
// as they go. Changes are reported as the folder that holds the changed entry.
//
// Running out of watches or descriptors is survived: what is watched keeps being reported, and the
// description tells how much is not.
class InotifyEventStream final : public ScheduledEventStream, private FolderWalk::Visitor {
public:
    struct Limits {
        // Watches this stream may hold, below the kernel's own limit; 0 for the kernel's alone. Lets
        // tests reach the limit without lowering it for every process of the user.
        std::size_t maxWatches = 0;
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
    void watchTree(const std::string& path, bool rescan);
    void watchRoots();
    bool addWatch(int fd, const std::string& path);
    void rememberWatch(int wd, const std::string& path);
    void forgetWatch(int wd);
    void dropSubtree(const std::string& path);
    void dropWatches(const std::vector<int>& wds);
    void noteUnwatched(const std::string& path, int error);
    int rootIndexForWatch(int wd) const;
    void rootChanged(Root& root);

    int m_fd = -1;
    Limits m_limits;
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

    std::size_t m_unwatchedFolders = 0;
    std::string m_unwatchedExample;
    int m_unwatchedError = 0;
};
