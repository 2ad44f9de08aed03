#include "ParallelWalk.h"

#include "FileDescriptor.h"

#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

unsigned workerCount()
{
    return std::clamp(std::thread::hardware_concurrency(), 1U, 4U);
}

void forEachInParallel(const std::vector<std::string>& names, const std::function<void(const std::string&)>& work)
{
    std::atomic<std::size_t> next{0};
    auto worker = [&] {
        for (std::size_t i = next.fetch_add(1); i < names.size(); i = next.fetch_add(1))
            work(names[i]);
    };
    const std::size_t helpers = std::min<std::size_t>(workerCount() - 1, names.size() / 2);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < helpers; ++i) {
        try {
            threads.emplace_back(worker);
        } catch (const std::system_error&) {
            break;
        }
    }
    worker();
    for (std::thread& thread : threads)
        thread.join();
}

} // namespace

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
