#pragma once

#include "Helpers/FsError.h"

#include <vector>

// How a folder copy ended and what it had to leave out. A backup is only as good as what it holds, so
// every item left out is named, not just counted: the window tells the user which documents are missing
// from the copy.
struct CopyOutcome {
    enum class Ending {
        Finished,   // every entry was handled; what could not be copied is in notCopied
        Cancelled,  // stopped on request: the copy is incomplete
        OutOfSpace, // the destination's disk (or the user's quota) is full: the copy is incomplete
    };

    Ending ending = Ending::Finished;
    // Every item that could not be copied: the failed call, its errno, and the item's path relative to
    // the copy's source root, bytes as on disk (empty for the root itself). A folder stands for its whole
    // subtree when the walk could not go into it.
    std::vector<FsError> notCopied;

    bool finished() const { return ending == Ending::Finished; }
};
