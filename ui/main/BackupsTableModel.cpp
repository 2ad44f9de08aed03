#include "BackupsTableModel.h"

#include "ui/main/MainWindowController.h"

BackupsTableModel::BackupsTableModel(const MainWindowController& controller, QObject* parent)
    : QAbstractTableModel(parent)
    , m_controller(controller)
{
}

QString BackupsTableModel::columnIdentifier(int column)
{
    return column == 0 ? MainWindowController::kDateColumn : MainWindowController::kSizeColumn;
}

void BackupsTableModel::setHeaderTitle(int column, const QString& title)
{
    m_headerTitles[column] = title;
    emit headerDataChanged(Qt::Horizontal, column, column);
}

void BackupsTableModel::reloadData()
{
    beginResetModel();
    endResetModel();
}

int BackupsTableModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : m_controller.numberOfRowsInTableView();
}

int BackupsTableModel::columnCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : 2;
}

QVariant BackupsTableModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid())
        return {};
    if (role == Qt::TextAlignmentRole && index.column() == 1)
        return QVariant(Qt::AlignRight | Qt::AlignVCenter);
    if (role != Qt::DisplayRole)
        return {};
    return m_controller.objectValueForTableColumn(columnIdentifier(index.column()), index.row());
}

QVariant BackupsTableModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || section < 0 || section > 1)
        return {};
    if (role == Qt::DisplayRole)
        return m_headerTitles.at(section);
    if (role == Qt::TextAlignmentRole && section == 1)
        return QVariant(Qt::AlignRight | Qt::AlignVCenter);
    return {};
}
