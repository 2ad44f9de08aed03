#pragma once

#include "BackupRecord.h"

#include <QList>

class UserDefaults;

// The list of backups in the order they were completed, oldest first, kept under the preferences key
// "Backups". It is only ever appended to or removed from at an index, never sorted, and every change
// writes the whole list back. Row i of the backups table is record i.
class BackupStore {
public:
    explicit BackupStore(UserDefaults& defaults);

    // Starts over from an empty list and takes the stored elements in their stored order.
    void load();
    // The list in memory changes either way; the answer is whether the whole list then reached the disk.
    // One that did not is saved whole by the next change that gets through.
    bool append(const BackupRecordRef& record);
    bool removeAt(qsizetype index);

    qsizetype count() const { return m_records.size(); }
    bool isEmpty() const { return m_records.isEmpty(); }
    BackupRecordRef at(qsizetype index) const { return m_records.at(index); }
    BackupRecordRef last() const { return m_records.isEmpty() ? nullptr : m_records.constLast(); }
    const QList<BackupRecordRef>& records() const { return m_records; }

private:
    bool save();

    UserDefaults& m_defaults;
    QList<BackupRecordRef> m_records;
};
