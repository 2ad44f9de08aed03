#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

// Real files for tests: writing, linking, and removing trees of any depth.
namespace TreeBuilder {

void writeFile(const std::filesystem::path& file, std::string_view content);
void writeFileOfSize(const std::filesystem::path& file, std::size_t size);
void makeFolder(const std::filesystem::path& folder);
void makeSymlink(const std::string& target, const std::filesystem::path& link);
std::string readFile(const std::filesystem::path& file);

// A chain of `depth` nested folders named `name` under `base`, built with descriptors so that it may go
// deeper than PATH_MAX. Returns an open descriptor of the deepest folder (the caller closes it).
int makeDeepChain(const std::filesystem::path& base, const char* name, int depth);

// Removes a tree of any depth, making unreadable folders readable first. Missing trees are fine.
void removeTree(const std::filesystem::path& path);

// Runs `work` in a child process that has dropped to an unprivileged user (when started as root), so
// that permission bits apply; returns what the child returned, or nothing when it could not run.
std::optional<std::string> runUnprivileged(const std::function<std::string()>& work);

} // namespace TreeBuilder
