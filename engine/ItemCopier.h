#pragma once

#include "Helpers/FsError.h"

#include <atomic>
#include <cstddef>
#include <optional>
#include <sys/stat.h>
#include <vector>

// Copies one item that is not a folder: a regular file, a symbolic link or a FIFO. Both sides are named
// relative to an open folder descriptor, so paths of any length work and no path is ever resolved
// twice.
//
// - Nothing is ever overwritten: the copy is created exclusively, and an item of any kind already at the
//   destination (a dangling link included) makes the copy fail with EEXIST. Nothing is written through a
//   symbolic link, at either end.
// - A regular file gets its content (reflink clone, else copy_file_range, else read and write; of a file
//   with holes only the parts holding data, found with SEEK_DATA and SEEK_HOLE, so the holes stay), its
//   extended attributes (those the destination accepts, never "security." ones), its permission bits and,
//   last, its access and modification times to the nanosecond. A link gets its target and its own times;
//   a FIFO its permissions and times. Devices and sockets are not copied: they fail with ENOTSUP.
// - A copy that fails leaves nothing behind: an item this copier created is removed again, so that no
//   truncated file can pass for a finished one later.
// - A program that quits must not wait for a large file to finish: with `abandonRequested` set, the copy
//   of a file's content stops between two ranges (at most kRangeBytes apart), what was written is
//   removed, and the copy fails with ECANCELED.
//
// Failures come back as values; FsError::path holds the name of the item concerned, relative to its
// folder. One copier keeps its buffers from item to item: use one per thread.
class ItemCopier {
public:
    // The most one copy_file_range call moves: a fraction of a second of disk time, so a quit never
    // waits long, and still large enough that the calls themselves cost nothing measurable.
    static constexpr std::size_t kRangeBytes = std::size_t(64) << 20;

    explicit ItemCopier(const std::atomic<bool>* abandonRequested = nullptr);

    [[nodiscard]] std::optional<FsError> copyItem(int sourceParentFd, const char* sourceName,
                                                  int destinationParentFd, const char* destinationName);
    // The same, for a caller that has just looked the source up itself (without following a link): the
    // item is not looked up twice.
    [[nodiscard]] std::optional<FsError> copyItem(int sourceParentFd, const char* sourceName,
                                                  const struct stat& status, int destinationParentFd,
                                                  const char* destinationName);

    // For a folder the caller created itself: its extended attributes, permission bits and times, taken
    // from the source folder (`sourceFd` may be -1 when the source folder could not be opened; its
    // attributes are then left out). Call it once the folder is filled, since filling it changes its
    // modification time and may need permissions the source folder does not grant.
    [[nodiscard]] std::optional<FsError> copyFolderAttributes(int sourceFd, const struct stat& source,
                                                              int destinationFd);

private:
    std::optional<FsError> copyRegularFile(int sourceParentFd, const char* sourceName,
                                           int destinationParentFd, const char* destinationName);
    std::optional<FsError> fillRegularFile(int source, const struct stat& status, int destination,
                                           const char* sourceName, const char* destinationName);
    std::optional<FsError> copyContent(int source, const struct stat& status, int destination,
                                       const char* sourceName, const char* destinationName);
    static bool hasHoles(const struct stat& status);
    std::optional<FsError> copyDataOnly(int source, off_t size, int destination, const char* sourceName,
                                        const char* destinationName);
    static std::optional<FsError> extendTo(int destination, off_t size, const char* destinationName);
    std::optional<FsError> copyRange(int source, off_t offset, off_t length, int destination,
                                     const char* sourceName, const char* destinationName);
    std::optional<FsError> copyByReadAndWrite(int source, off_t offset, off_t remaining, int destination,
                                              const char* sourceName, const char* destinationName);
    std::optional<FsError> copySymbolicLink(int sourceParentFd, const char* sourceName,
                                            const struct stat& status, int destinationParentFd,
                                            const char* destinationName);
    std::optional<FsError> copyFifo(const struct stat& status, int destinationParentFd,
                                    const char* destinationName);
    std::optional<FsError> copyExtendedAttributes(int source, int destination, const char* destinationName);
    std::optional<FsError> copyExtendedAttribute(int source, int destination, const char* name,
                                                 const char* destinationName);
    static std::optional<FsError> copyPermissionsAndTimes(const struct stat& source, int destination,
                                                          const char* destinationName);
    bool abandoned() const;

    const std::atomic<bool>* m_abandonRequested;

    std::vector<char> m_attributeNames;
    std::vector<char> m_attributeValue;
    std::vector<char> m_transfer; // only for the read and write fallback, allocated on first use
};
