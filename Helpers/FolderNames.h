#pragma once

#include <memory>
#include <string_view>
#include <vector>

// The names in one open folder, read once with a few getdents64 calls and then looked up in memory. Asking
// a listing is much cheaper than one fstatat per name when most names of a folder are asked about, as when
// one tree is compared with another.
//
// The names are those of the moment the folder was read: callers that act on the answer still have to
// cope with a name that came or went since (creating exclusively, for one). A folder whose listing could
// not be read whole is asked name by name instead.
class FolderNames {
public:
    // Knows the folder to be empty without reading it, as for a folder the caller has just created.
    FolderNames() = default;

    // Reads the listing of `folderFd` from its start; the descriptor's offset is left at the end.
    explicit FolderNames(int folderFd);

    // Whether an item of any kind (a dangling link too) has that name in the folder, which `folderFd` (the
    // folder read, or the same folder opened again) is only needed to ask when the listing was incomplete.
    [[nodiscard]] bool contains(int folderFd, const char* name) const;

private:
    bool read(int folderFd);

    bool m_complete = true;
    std::unique_ptr<char[]> m_records;
    std::vector<std::string_view> m_sortedNames;
};
