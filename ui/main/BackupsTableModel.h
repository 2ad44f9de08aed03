#pragma once

#include <functional>
#include <QAbstractTableModel>
#include <QStringList>

// The backups table's rows, asked of its owner through the source: row i is backup record i. The
// columns are identified by "date" and "size"; their header titles are set by the owner.
class BackupsTableModel : public QAbstractTableModel {
    Q_OBJECT

public:
    struct Source {
        std::function<int()> numberOfRows;
        std::function<QVariant(const QString& columnIdentifier, int row)> objectValue;
    };
    static inline const QString kDateColumn = QStringLiteral("date");
    static inline const QString kSizeColumn = QStringLiteral("size");

    explicit BackupsTableModel(Source source, QObject* parent = nullptr);

    static QString columnIdentifier(int column);
    void setHeaderTitle(int column, const QString& title);
    void reloadData();

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    int columnCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;

private:
    Source m_source;
    QStringList m_headerTitles{QString(), QString()};
};
