#pragma once

#include <QString>

// The user's file manager.
class FileManager {
public:
    virtual ~FileManager() = default;
    // Opens a file-manager window with the item selected; best effort.
    virtual void selectFile(const QString& path) = 0;
};
