#pragma once

#include <QAbstractTableModel>
#include <QStringList>

class MainWindowController;

// The backups table's rows, asked of the main window controller: row i is backup record i. The columns
// are identified by "date" and "size"; their header titles are set by the controller.
class BackupsTableModel : public QAbstractTableModel {
    Q_OBJECT

public:
    explicit BackupsTableModel(const MainWindowController& controller, QObject* parent = nullptr);

    static QString columnIdentifier(int column);
    void setHeaderTitle(int column, const QString& title);
    void reloadData();

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    int columnCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;

private:
    const MainWindowController& m_controller;
    QStringList m_headerTitles{QString(), QString()};
};
