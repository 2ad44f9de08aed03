#pragma once

#include "support/EventLoop.h"
#include "support/QtPrinters.h"
#include "support/TestWorld.h"
#include "support/TreeBuilder.h"
#include "ui/main/MainWindowController.h"

#include <gtest/gtest.h>
#include <QLabel>
#include <QPushButton>
#include <QSignalSpy>
#include <sys/mount.h>

// The main window on its own, with a quick check of the apps to quit.
class MainWindowFixture : public TestWorld {
protected:
    MainWindowController::Services services(bool sandboxed = false)
    {
        return {defaults,
                applications,
                alerts,
                chooser,
                passwords,
                fileManager,
                [sandboxed] { return sandboxed; },
                [this] { return homeDirectory; },
                [this](const QString& chosen) { homeDirectory = chosen; },
                scriptedStreamFactory(streams),
                std::chrono::milliseconds(10),
                copier,
                clock};
    }
    // Shown, and done measuring the iCloud folder.
    std::unique_ptr<MainWindowController> openWindow(bool sandboxed = false)
    {
        auto controller = std::make_unique<MainWindowController>(services(sandboxed));
        controller->showWindow();
        EXPECT_TRUE(waitForSize(*controller));
        return controller;
    }
    static bool waitForSize(MainWindowController& controller)
    {
        return runEventLoopUntil([&] { return !controller.isCalculatingiCloudSizeInProgress(); });
    }
    static bool backUp(MainWindowController& controller)
    {
        QSignalSpy finished(&controller, &MainWindowController::backUpFinished);
        controller.backUpNow();
        return runEventLoopUntil([&] { return finished.count() > 0; }, 20000);
    }
    // A small tmpfs over `folder`, hiding what it held until the test's end unmounts it.
    bool mountSmallVolume(const std::filesystem::path& folder, const char* size)
    {
        TreeBuilder::makeFolder(folder);
        const std::string options = std::string("size=") + size;
        if (::mount("tmpfs", folder.c_str(), "tmpfs", 0, options.c_str()) != 0)
            return false;
        m_mounted.push_back(folder);
        return true;
    }
    void TearDown() override
    {
        for (const std::filesystem::path& folder : m_mounted)
            ::umount2(folder.c_str(), MNT_DETACH);
    }

    std::optional<QString> homeDirectory = QString::fromStdString(home.path().string());
    MainWindowController::Services::CopierFunction copier = {};
    std::function<QDateTime()> clock = {};

private:
    std::vector<std::filesystem::path> m_mounted;
};
