#pragma once

#include "FileManager.h"

#include <functional>

class QUrl;

// Asks the desktop's file manager through org.freedesktop.FileManager1.ShowItems on the session bus;
// when no file manager is there to answer, opens the item's parent folder the default way instead.
class FreedesktopFileManager final : public FileManager {
public:
    // What is asked of the session bus, and the fallback; the real ones unless a test scripts them.
    struct Bus {
        std::function<bool(const QString& service)> isOwned;
        // Whether the bus would start the service on demand (ListActivatableNames).
        std::function<bool(const QString& service)> isActivatable;
        // Sends ShowItems for the item; false when the call could not be sent.
        std::function<bool(const QString& itemUri)> showItems;
        std::function<void(const QUrl& folder)> openFolder;
    };

    FreedesktopFileManager();
    explicit FreedesktopFileManager(Bus bus);

    void selectFile(const QString& path) override;

    static Bus sessionBus();

private:
    bool askFileManager(const QString& path) const;

    Bus m_bus;
};
