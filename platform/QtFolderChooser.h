#pragma once

#include "FolderChooser.h"

class QWidget;

class QtFolderChooser final : public FolderChooser {
public:
    explicit QtFolderChooser(QWidget* parent = nullptr);
    std::optional<QString> chooseFolder(const QString& title) override;

private:
    QWidget* m_parent;
};
