#pragma once

#include "FileManager.h"

// Asks the desktop's file manager through org.freedesktop.FileManager1.ShowItems on the session bus;
// when nothing answers there, opens the item's parent folder the default way instead.
class FreedesktopFileManager final : public FileManager {
public:
    void selectFile(const QString& path) override;
};
