#include "BackupStore.h"

#include "platform/UserDefaults.h"
#include "store/iCloudPrefs.h"

BackupStore::BackupStore(UserDefaults& defaults)
    : m_defaults(defaults)
{
}

void BackupStore::load()
{
    m_records.clear();
    const std::optional<QVariantList> stored = m_defaults.arrayForKey(iCloudPrefs::kBackupsKey);
    if (!stored)
        return;
    m_records.reserve(stored->size());
    for (const QVariant& element : *stored)
        m_records.append(BackupRecord::fromStored(element));
}

bool BackupStore::append(const BackupRecordRef& record)
{
    m_records.append(record);
    return save();
}

bool BackupStore::removeAt(qsizetype index)
{
    m_records.removeAt(index);
    return save();
}

bool BackupStore::save()
{
    QVariantList stored;
    stored.reserve(m_records.size());
    for (const BackupRecordRef& record : m_records)
        stored.append(record->stored());
    return m_defaults.setObjectForKey(stored, iCloudPrefs::kBackupsKey);
}
