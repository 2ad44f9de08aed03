#pragma once

#include "FsError.h"

#include <cstdint>
#include <filesystem>

class CocoaAdditions {
public:
    // Bytes available to the user on the volume that holds the path (statvfs: f_bavail * f_frsize).
    // On failure the error is stored in *error (when given) and 0 is returned: callers must look at the
    // error, not at the 0, to tell a failure from a full volume.
    static std::int64_t determineFreeSpaceOnDeviceByPath(const std::filesystem::path& path, FsError* error);
};
