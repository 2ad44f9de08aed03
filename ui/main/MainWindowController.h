#pragma once

#include <QMainWindow>
#include <memory>

namespace Ui {
class MainWindowController;
}

// The one main window. Its layout lives in resources/MainWindowController.ui.
class MainWindowController : public QMainWindow {
    Q_OBJECT

public:
    explicit MainWindowController(QWidget* parent = nullptr);
    ~MainWindowController() override;

private:
    std::unique_ptr<Ui::MainWindowController> m_ui;
};
