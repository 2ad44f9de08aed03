#pragma once

#include "watch/SCEvents.h"

#include <QObject>
#include <QString>
#include <chrono>
#include <memory>
#include <optional>

class AlertPresenter;
class FileManager;
class FolderChooser;
class MainMenu;
class MainWindowController;
class PasswordDatabase;
class QWidget;
class RunningApplications;
class UserDefaults;

// Puts the program together at launch and holds what lives for the whole run.
class AppDelegate : public QObject {
    Q_OBJECT

public:
    struct Services {
        UserDefaults& defaults;
        FolderChooser& folderChooser;
        const PasswordDatabase& passwords;
        RunningApplications& runningApplications;
        AlertPresenter& alerts;
        FileManager& fileManager;
        SCEvents::StreamFactory streamFactory = {}; // empty: the platform's stream
        std::chrono::milliseconds quitAppsCheckInterval{1000};
    };

    explicit AppDelegate(Services services, QObject* parent = nullptr);
    ~AppDelegate() override;

    void applicationDidFinishLaunching();

    static bool isSandboxed();
    bool sandboxed() const { return m_sandboxed; }
    const std::optional<QString>& homeDirectory() const { return m_homeDirectory; }
    void setHomeDirectory(const std::optional<QString>& homeDirectory) { m_homeDirectory = homeDirectory; }
    MainWindowController* mainWindowController() const { return m_mainWindowController.get(); }
    MainMenu* mainMenu() const { return m_mainMenu.get(); }
    bool isObservingWindowClose() const { return m_observingWindowClose; }

    void showAboutWindow();
    void openPelmoraHomePage();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void createMainWindow();
    void startWithHomeDirectory();
    void observeWindowClose();
    void translateMainMenu();
    void connectMainMenu();
    void _windowClosed(QWidget* window);

    Services m_services;
    std::unique_ptr<MainWindowController> m_mainWindowController;
    std::unique_ptr<MainMenu> m_mainMenu;
    bool m_sandboxed = false;
    std::optional<QString> m_homeDirectory;
    bool m_observingWindowClose = false;
};
