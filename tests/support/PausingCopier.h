#pragma once

#include "engine/DirectoryCopier.h"
#include "operations/CopyOperation.h"

#include <atomic>
#include <filesystem>
#include <functional>
#include <utility>

// The real copier, which calls `afterFirstFile` on its worker thread once the first file is copied, with
// the copy's quit flag: a test acts there, in the middle of a copy, for as long as it likes.
inline CopyOperation::Copier
copierPausingAfterFirstFile(std::function<void(const std::atomic<bool>* abandon)> afterFirstFile)
{
    return [afterFirstFile = std::move(afterFirstFile)](
               const std::filesystem::path& source, const std::filesystem::path& destination,
               const std::atomic<bool>& cancel, const DirectoryCopier::Progress& progress,
               const std::atomic<bool>* abandon, PreviousBackup* previous) {
        bool first = true;
        return DirectoryCopier::copyDirectoryAtPath(
            source, destination, cancel,
            [&](const std::filesystem::path& copied) {
                progress(copied);
                if (std::exchange(first, false) && afterFirstFile)
                    afterFirstFile(abandon);
            },
            abandon, previous);
    };
}
