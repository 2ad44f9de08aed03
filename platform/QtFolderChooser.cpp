#include "QtFolderChooser.h"

#include <QDir>
#include <QFileDialog>

QtFolderChooser::QtFolderChooser(QWidget* parent)
    : m_parent(parent)
{
}

std::optional<QString> QtFolderChooser::chooseFolder(const QString& title)
{
    QFileDialog dialog(m_parent, title, QDir::homePath());
    dialog.setFileMode(QFileDialog::Directory);
    // Qt's own dialog: only it honours ReadOnly, which removes the "new folder" action.
    dialog.setOptions(QFileDialog::ShowDirsOnly | QFileDialog::ReadOnly | QFileDialog::DontUseNativeDialog);
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty())
        return std::nullopt;
    return dialog.selectedFiles().constFirst();
}
