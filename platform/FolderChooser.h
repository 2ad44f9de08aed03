#pragma once

#include <optional>
#include <QString>

// A modal folder chooser: one folder, no files, no creating folders. Tests script the answer.
class FolderChooser {
public:
    virtual ~FolderChooser() = default;
    // The chosen folder's absolute path, or nothing when the user cancels.
    virtual std::optional<QString> chooseFolder(const QString& title) = 0;
};
