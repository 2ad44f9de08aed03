#pragma once

#include <QTableView>

class CustomTableView;
class QMenu;

class CustomTableViewDelegate {
public:
    virtual ~CustomTableViewDelegate() = default;
    // The menu for a context click on `row` (-1: below the last row), or null for none. The table shows
    // it and deletes it when it closes.
    virtual QMenu* contextualMenuForTableView(CustomTableView* table, int row) = 0;
};

// A table whose context click first selects the clicked row (alone, unless it is selected already) and
// then asks its delegate for a menu made for that row, so the menu's commands act on the selection.
class CustomTableView : public QTableView {
    Q_OBJECT

public:
    explicit CustomTableView(QWidget* parent = nullptr);

    void setMenuDelegate(CustomTableViewDelegate* delegate) { m_menuDelegate = delegate; }
    CustomTableViewDelegate* menuDelegate() const { return m_menuDelegate; }

    // Steps of a context click at a point of the viewport; null when there is no menu.
    QMenu* menuForEvent(const QPoint& viewportPosition);

protected:
    void contextMenuEvent(QContextMenuEvent* event) override;

private:
    CustomTableViewDelegate* m_menuDelegate = nullptr;
};
