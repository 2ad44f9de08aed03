#pragma once

#include <QHash>
#include <QString>

class QAction;
class QMenuBar;

// The program's main menu, built with its untranslated titles; the launch translates it through the
// "MainMenu" table, keyed by each item's path ("MainMenu_File_Get Info"). The application menu carries
// the placeholder title "Apple", which translation keys by the bundle name.
class MainMenu {
public:
    enum class Command {
        About,
        HomePage,
        Quit,
        CreateBackup,
        RestoreBackup,
        ShowBackupInfo,
        ShowInFinder,
        DeleteBackup,
        AskBeforeDeletingBackups,
        CloseWindow,
        Minimize,
        ShowMainWindow,
    };

    explicit MainMenu(QMenuBar* menuBar);

    QAction* action(Command command) const { return m_actions.value(command); }
    class QMenu* fileMenu() const { return m_fileMenu; }
    class QMenu* windowMenu() const { return m_windowMenu; }
    static Command commandOf(const QAction* item);

private:
    QAction* addItem(class QMenu* menu, const char* title, Command command,
                     const class QKeySequence& shortcut);

    QHash<Command, QAction*> m_actions;
    class QMenu* m_fileMenu = nullptr;
    class QMenu* m_windowMenu = nullptr;
};
