#include "MainMenu.h"

#include <QAction>
#include <QKeySequence>
#include <QMenu>
#include <QMenuBar>

namespace {
const char* const kCommandProperty = "pelmoraCommand";
}

MainMenu::MainMenu(QMenuBar* menuBar)
{
    QMenu* application = menuBar->addMenu(QStringLiteral("Apple"));
    addItem(application, "About Pelmora", Command::About, {});
    addItem(application, "Pelmora Home Page", Command::HomePage, {});
    application->addSeparator();
    addItem(application, "Quit Pelmora", Command::Quit, QKeySequence::Quit);

    QMenu* file = menuBar->addMenu(QStringLiteral("File"));
    m_fileMenu = file;
    addItem(file, "Back Up Now", Command::CreateBackup, QKeySequence(Qt::CTRL | Qt::Key_B));
    addItem(file, "Restore from Backup", Command::RestoreBackup, {});
    file->addSeparator();
    addItem(file, "Get Info", Command::ShowBackupInfo, QKeySequence(Qt::CTRL | Qt::Key_I));
    addItem(file, "Show in File Manager", Command::ShowInFinder, QKeySequence(Qt::CTRL | Qt::Key_O));
    addItem(file, "Delete Backup", Command::DeleteBackup, {});
    file->addSeparator();
    // The way back for whoever ticked "Don't ask again" in the delete confirmation.
    addItem(file, "Ask Before Deleting Backups", Command::AskBeforeDeletingBackups, {})->setCheckable(true);
    file->addSeparator();
    addItem(file, "Close Window", Command::CloseWindow, QKeySequence::Close);

    QMenu* window = menuBar->addMenu(QStringLiteral("Window"));
    m_windowMenu = window;
    addItem(window, "Minimize", Command::Minimize, QKeySequence(Qt::CTRL | Qt::Key_M));
    addItem(window, "Main Window", Command::ShowMainWindow, {});

    QMenu* help = menuBar->addMenu(QStringLiteral("Help"));
    addItem(help, "Pelmora Home Page", Command::HomePage, {});
}

QAction* MainMenu::addItem(QMenu* menu, const char* title, Command command, const QKeySequence& shortcut)
{
    QAction* item = menu->addAction(QString::fromLatin1(title));
    item->setShortcut(shortcut);
    // The menu bar lives in the main window; its shortcuts work from every window of the program.
    item->setShortcutContext(Qt::ApplicationShortcut);
    item->setProperty(kCommandProperty, static_cast<int>(command));
    if (!m_actions.contains(command))
        m_actions.insert(command, item);
    return item;
}

MainMenu::Command MainMenu::commandOf(const QAction* item)
{
    return static_cast<Command>(item->property(kCommandProperty).toInt());
}
