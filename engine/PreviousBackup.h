#pragma once

#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <unordered_set>
#include <vector>

// The last complete backup, which a new backup shares its unchanged files with: a live file that agrees
// with that backup's file on kind, size, modification time to the nanosecond, mode and extended
// attributes gets a hard link to it instead of a copy. Both stay plain files; removing either backup
// leaves the other whole, since a file's blocks go only with its last name.
//
// - Only regular files are shared; folders, links and FIFOs are always made afresh.
// - An item the backup lists as not copied (NotCopiedList), or that lies in a folder it lists, is never
//   shared: whatever stands at its place in that backup is not a copy the backup vouches for.
// - A file of that backup is shared at most once per new backup, so two live files that are separate
//   files never become one in the new backup (the backup may hold one file under two names).
// - The link is made from the folder descriptors the copy walks with, never through a path, and the
//   file is compared once linked, so what was compared is what the new backup holds; a file that does
//   not agree loses the new name again, and the caller copies it.
//
// One object serves one copy on one thread.
class PreviousBackup {
public:
    explicit PreviousBackup(std::filesystem::path folder);

    const std::filesystem::path& folder() const { return m_folder; }

    // `relativePath` as the copy names items: relative to the backup folder, bytes as on disk.
    bool mayShare(const std::string& relativePath) const;
    bool listsItemsNotCopied() const { return !m_notCopied.empty(); }

    // Links `name` in `destinationParentFd` to the same name in `previousParentFd` when that file agrees
    // with the live one; false (nothing made) when it does not, or when the link cannot be made.
    bool linkUnchanged(int liveParentFd, const char* name, const struct stat& live, int previousParentFd,
                       int destinationParentFd);

private:
    bool agrees(const struct stat& live, const struct stat& previous) const;
    bool sameExtendedAttributes(int liveParentFd, int linkedParentFd, const char* name);
    bool readAttributes(int parentFd, const char* name, std::vector<std::string>& into);
    template<typename Call>
    static ssize_t withRoomFor(std::vector<char>& buffer, std::size_t most, const Call& call);

    std::filesystem::path m_folder;
    std::unordered_set<std::string> m_notCopied;
    std::unordered_set<ino_t> m_sharedInodes;
    std::vector<char> m_names;
    std::vector<char> m_value;
    std::vector<std::string> m_liveAttributes;
    std::vector<std::string> m_previousAttributes;
};
