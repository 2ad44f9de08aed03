#include "ParallelWalk.h"

#include "FileDescriptor.h"

#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

unsigned workerCount()
{
    return std::clamp(std::thread::hardware_concurrency(), 1U, 4U);
}

ParallelWalk::Starter& starter()
{
    static ParallelWalk::Starter theStarter;
    return theStarter;
}

void forEachInParallel(const std::vector<std::string>& names,
                       const std::function<void(const std::string&)>& work)
{
    std::atomic<std::size_t> next{0};
    auto worker = [&] {
        for (std::size_t i = next.fetch_add(1); i < names.size(); i = next.fetch_add(1))
            work(names[i]);
    };
    const std::size_t helpers = starter() ? std::min<std::size_t>(workerCount() - 1, names.size() / 2) : 0;
    std::atomic<std::size_t> running{0};
    for (std::size_t i = 0; i < helpers; ++i) {
        running.fetch_add(1);
        const bool started = starter()([&] {
            worker();
            running.fetch_sub(1);
            running.notify_one();
        });
        if (!started)
            running.fetch_sub(1);
    }
    worker();
    // The helpers' shares are done once the list is; this waits for them to leave the walk.
    for (std::size_t left = running.load(); left != 0; left = running.load())
        running.wait(left);
}

} // namespace

void ParallelWalk::setStarter(Starter newStarter)
{
    starter() = std::move(newStarter);
}

bool ParallelWalk::walk(const std::filesystem::path& root, const DirectoryWalker::Visitor& visit,
                        const Subtree& subtree)
{
    const FileDescriptor rootFd(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (rootFd.get() < 0)
        return false;
    const int walkedFd = ::dup(rootFd.get());
    if (walkedFd < 0)
        return false;
    std::vector<std::string> folders;
    DirectoryWalker::walkOpenFolder(
        walkedFd, root,
        [&](const WalkEntry& entry) {
            const WalkAction action = visit(entry);
            if (action != WalkAction::Continue || !entry.isDirectory)
                return action;
            folders.emplace_back(entry.name);
            return WalkAction::SkipDescendants;
        },
        {}, nullptr);
    forEachInParallel(folders, [&](const std::string& name) { subtree(rootFd.get(), name); });
    return true;
}
