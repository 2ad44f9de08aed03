#pragma once

#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

// Real files for tests: writing, linking, and removing trees of any depth.
namespace TreeBuilder {

void writeFile(const std::filesystem::path& file, std::string_view content);
void writeFileOfSize(const std::filesystem::path& file, std::size_t size);
void makeFolder(const std::filesystem::path& folder);
void makeSymlink(const std::string& target, const std::filesystem::path& link);
// A socket bound at `path` and left there: an item no copy can take.
void makeSocket(const std::filesystem::path& path);
std::string readFile(const std::filesystem::path& file);

// Sets the item's own times (a link's, not its target's); the access time stays unless one is given.
void setTimes(const std::filesystem::path& item, timespec modified);
void setTimes(const std::filesystem::path& item, timespec modified, timespec accessed);

// What a copy must keep of an item: its kind, permission bits, modification time to the nanosecond, and
// its content or link target. "missing" when there is none.
std::string describe(const std::filesystem::path& item);

// describe() of every item below `root` (never through a link), by path relative to it.
std::map<std::string, std::string> snapshot(const std::filesystem::path& root);

// A tree as "path=content" items, paths relative to its root: "path=/" stands for a folder and
// "path=-> target" for a symbolic link (contents() shows a FIFO, socket or device as "path=(special)").
using Items = std::set<std::string>;

// Every item below `root`, never through a link.
Items contents(const std::filesystem::path& root);

// Makes every item below `root`; given a time, each file gets it as its modification time.
void writeItems(const std::filesystem::path& root, const Items& items,
                std::optional<timespec> modified = std::nullopt);

// A chain of `depth` nested folders named `name` under `base`, built with descriptors so that it may go
// deeper than PATH_MAX. Returns an open descriptor of the deepest folder (the caller closes it).
int makeDeepChain(const std::filesystem::path& base, const char* name, int depth);

// Removes a tree of any depth, making unreadable folders readable first. Missing trees are fine.
void removeTree(const std::filesystem::path& path);

// The original place a .trashinfo file names, unescaped; "" unless the file starts with the Trash Info
// header and a Path line and has a DeletionDate line.
std::string trashedOriginal(const std::filesystem::path& trashInfo);

// Runs `work` in a child process that has dropped to an unprivileged user (when started as root), so
// that permission bits apply; returns what the child returned, or nothing when it could not run.
std::optional<std::string> runUnprivileged(const std::function<std::string()>& work);

} // namespace TreeBuilder
