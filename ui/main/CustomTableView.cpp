#include "CustomTableView.h"

#include <QContextMenuEvent>
#include <QItemSelectionModel>
#include <QMenu>

CustomTableView::CustomTableView(QWidget* parent)
    : QTableView(parent)
{
}

QMenu* CustomTableView::menuForEvent(const QPoint& viewportPosition)
{
    const int row = rowAt(viewportPosition.y());
    if (row != -1 && selectionModel() && !selectionModel()->isRowSelected(row, QModelIndex())) {
        selectionModel()->select(model()->index(row, 0),
                                 QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
        selectionModel()->setCurrentIndex(model()->index(row, 0), QItemSelectionModel::NoUpdate);
    }
    return m_menuDelegate ? m_menuDelegate->contextualMenuForTableView(this, row) : nullptr;
}

void CustomTableView::contextMenuEvent(QContextMenuEvent* event)
{
    if (!m_menuDelegate) {
        QTableView::contextMenuEvent(event);
        return;
    }
    QMenu* menu = menuForEvent(event->pos());
    if (!menu)
        return;
    menu->setAttribute(Qt::WA_DeleteOnClose);
    menu->popup(event->globalPos());
}
