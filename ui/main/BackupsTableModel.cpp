#include "BackupsTableModel.h"

#include <utility>

BackupsTableModel::BackupsTableModel(Source source, QObject* parent)
    : QAbstractTableModel(parent)
    , m_source(std::move(source))
{
}

QString BackupsTableModel::columnIdentifier(int column)
{
    return column == 0 ? kDateColumn : kSizeColumn;
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
    return parent.isValid() ? 0 : m_source.numberOfRows();
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
    return m_source.objectValue(columnIdentifier(index.column()), index.row());
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
