#include "AppDelegate.h"

#include "app/HomeFolderAcquisition.h"
#include "ui/main/MainWindowController.h"

#include <QDir>

AppDelegate::AppDelegate(Services services, QObject* parent)
    : QObject(parent)
    , m_services(services)
{
}

AppDelegate::~AppDelegate() = default;

bool AppDelegate::isSandboxed()
{
    return HomeFolderAcquisition::isSandboxedHome(QDir::homePath());
}

void AppDelegate::applicationDidFinishLaunching()
{
    m_mainWindowController = std::make_unique<MainWindowController>();
    m_mainWindowController->show();

    m_sandboxed = isSandboxed();
    HomeFolderAcquisition acquisition(m_services.defaults, m_services.folderChooser, m_services.passwords);
    const HomeFolderOutcome outcome = acquisition.run(m_sandboxed, QDir::homePath());
    m_homeDirectory = outcome.homeDirectory;
}
