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

    std::optional<QString> homeDirectory = QString::fromStdString(home.path().string());
    MainWindowController::Services::CopierFunction copier = {};
    std::function<QDateTime()> clock = {};
};
