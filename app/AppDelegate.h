#pragma once

#include <QObject>
#include <QString>
#include <memory>
#include <optional>

class FolderChooser;
class MainWindowController;
class PasswordDatabase;
class UserDefaults;

// Puts the program together at launch and holds what lives for the whole run.
class AppDelegate : public QObject {
    Q_OBJECT

public:
    struct Services {
        UserDefaults& defaults;
        FolderChooser& folderChooser;
        const PasswordDatabase& passwords;
    };

    explicit AppDelegate(Services services, QObject* parent = nullptr);
    ~AppDelegate() override;

    void applicationDidFinishLaunching();

    static bool isSandboxed();
    bool sandboxed() const { return m_sandboxed; }
    const std::optional<QString>& homeDirectory() const { return m_homeDirectory; }
    void setHomeDirectory(const std::optional<QString>& homeDirectory) { m_homeDirectory = homeDirectory; }
    MainWindowController* mainWindowController() const { return m_mainWindowController.get(); }

private:
    Services m_services;
    std::unique_ptr<MainWindowController> m_mainWindowController;
    bool m_sandboxed = false;
    std::optional<QString> m_homeDirectory;
};
