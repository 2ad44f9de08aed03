#pragma once

#include "DirectoryWalker.h"

#include <filesystem>
#include <functional>
#include <string>

// Walks a tree on several threads, one top-level folder per task. Worth it where the time goes into the
// kernel's work per entry and the top-level folders are independent of one another, as the containers
// of the cloud-documents folder are: a walk then uses every core instead of one.
class ParallelWalk {
public:
    // Called with the root's open descriptor and the name of one of its folders; walks that folder.
    using Subtree = std::function<void(int rootFd, const std::string& name)>;
    // Starts `task` on another thread at once and answers true, or answers false and the caller does that
    // share itself. The program hands in its shared pool once, before any walk; without a starter a walk
    // runs on the calling thread alone. A starter must never queue the task for later: the caller waits
    // for every task it started.
    using Starter = std::function<bool(std::function<void()> task)>;
    static void setStarter(Starter starter);

    // Walks the root's own entries with `visit` on the calling thread. Each folder that the visitor lets
    // the walk enter is not entered but handed to `subtree` once the root's entries are done, on up to
    // four threads, the calling one among them; a task the starter cannot start at once leaves its share
    // to the others. A link at the root is followed, as the user named that path. False when the root cannot
    // be opened as a folder.
    static bool walk(const std::filesystem::path& root, const DirectoryWalker::Visitor& visit,
                     const Subtree& subtree);
};
