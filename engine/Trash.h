#pragma once

#include "Helpers/FsError.h"

#include <cerrno>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <unistd.h>

// The desktop's Trash, as the freedesktop Trash specification lays it out, so that whatever a restore
// takes out of the live folder can be found and put back with the file manager.
//
// An item goes by rename into the trash of its own volume: the home trash ($XDG_DATA_HOME/Trash) for
// items on the volume of the data home, otherwise $topdir/.Trash/$uid (when an administrator made
// $topdir/.Trash a sticky folder) or $topdir/.Trash-$uid. A rename never copies, so a folder goes whole
// as one entry, at once, and nothing is ever half moved.
//
// One object may serve several threads: which trash a volume gets is decided once, under a lock, and
// entry names are claimed with exclusive creation, which no other thread or program can race.
class Trash {
public:
    // The code moveToTrash answers when the item's volume has no trash it may use (none can be made,
    // one is there but not safe to use, or the move would have to cross volumes). The caller decides
    // whether to remove the item for good instead.
    static constexpr int kNoTrash = EXDEV;

    explicit Trash(std::filesystem::path dataHome, uid_t uid = ::getuid());
    ~Trash();
    Trash(const Trash&) = delete;
    Trash& operator=(const Trash&) = delete;

    // Moves the entry `name` of the folder open as `parentFd` (a link as a link, a folder with all it
    // holds) into the trash. `originalPath` is where the item is, absolute and without links, written
    // into its .trashinfo and used for nothing else: the item itself is reached through `parentFd`, so
    // names that are not UTF-8 and paths longer than PATH_MAX are no matter. On failure the item is
    // where it was and no .trashinfo is left behind.
    [[nodiscard]] std::optional<FsError> moveToTrash(int parentFd, const char* name,
                                                     const std::filesystem::path& originalPath);

private:
    struct Place;

    const Place& placeFor(int parentFd, dev_t device, const std::filesystem::path& originalPath);
    std::unique_ptr<Place> makeHomePlace(dev_t device);
    std::unique_ptr<Place> makeTopDirectoryPlace(int parentFd, dev_t device,
                                                 const std::filesystem::path& originalPath);
    std::optional<dev_t> homeDevice();

    std::filesystem::path m_dataHome;
    uid_t m_uid;
    std::mutex m_mutex;
    std::optional<std::optional<dev_t>> m_homeDevice; // looked up once; inner nothing: no such volume
    std::map<dev_t, std::unique_ptr<Place>> m_places; // never erased: callers keep references
};
