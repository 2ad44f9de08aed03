#pragma once

#include "Helpers/Localizer.h"
#include "app/iCloudPrefs.h"
#include "platform/UserDefaults.h"
#include "support/EventLoop.h"
#include "support/FakeRunningApplications.h"
#include "support/ScriptedAlertPresenter.h"
#include "support/RecordingFileManager.h"
#include "support/ScriptedChoosers.h"
#include "support/ScriptedEventStream.h"
#include "support/TestHome.h"
#include "ui/main/MainWindowController.h"

#include <gtest/gtest.h>

// The main window's world for a test: a temporary home that is also the known home folder, English
// texts, scripted alerts, choosers and folder events, fake running applications, and a quick check of
// the apps to quit.
class MainWindowFixture : public ::testing::Test {
protected:
    MainWindowFixture()
    {
        Localizer::Resources english;
        english.userLanguages = QStringList{"en"};
        Localizer::setResources(english);
        iCloudPrefs::registerDefaults(defaults);
        passwords.home = home.path().string();
    }

    static QString text(const char* key) { return Localizer::localizedStringForKey(QString::fromLatin1(key)); }

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
    std::unique_ptr<MainWindowController> openWindow(bool sandboxed = false)
    {
        auto controller = std::make_unique<MainWindowController>(services(sandboxed));
        controller->showWindow();
        return controller;
    }
    static bool waitForSize(MainWindowController& controller)
    {
        return runEventLoopUntil([&] { return !controller.isCalculatingiCloudSizeInProgress(); });
    }
    std::filesystem::path iCloud() const { return home.path() / "Library" / "Mobile Documents"; }
    QString iCloudFolder() const { return QString::fromStdString(iCloud().string()); }

    TestHome home;
    UserDefaults defaults{UserDefaults::standardFilePath()};
    FakeRunningApplications applications;
    ScriptedAlertPresenter alerts;
    ScriptedFolderChooser chooser;
    ScriptedPasswordDatabase passwords;
    RecordingFileManager fileManager;
    std::optional<QString> homeDirectory = QString::fromStdString(home.path().string());
    StreamLog streams;
    MainWindowController::Services::CopierFunction copier = {};
    std::function<QDateTime()> clock = {};
};
