#include "MainWindowController.h"

#include "ui_MainWindowController.h"

MainWindowController::MainWindowController(QWidget* parent)
    : QMainWindow(parent)
    , m_ui(std::make_unique<Ui::MainWindowController>())
{
    m_ui->setupUi(this);
}

MainWindowController::~MainWindowController() = default;
