#pragma once

#include "Helpers/FsError.h"
#include "operations/CopyOperation.h"

#include <filesystem>
#include <vector>

// One restore run: prunes the live folder to what the backup holds and counts what is missing, checks
// that the live folder's volume has room for it, then copies the missing items back.
class RestoreOperation : public CopyOperation {
    Q_OBJECT

public:
    enum class Ending { Running, Restored, Canceled, NotEnoughSpace };

    RestoreOperation(std::filesystem::path backup, std::filesystem::path live, Copier copier = {},
                     QObject* parent = nullptr);

    void start();

    const std::filesystem::path& backupFolder() const { return m_backup; }
    Ending ending() const { return m_ending; }
    const std::vector<FsError>& notCopied() const { return m_notCopied; }

private:
    void prepared(std::uint64_t size, std::int32_t count);
    void copyEnded(const CopyOutcome& outcome) override;
    void endWith(Ending ending);

    std::filesystem::path m_backup;
    std::filesystem::path m_live;
    Ending m_ending = Ending::Running;
    std::vector<FsError> m_notCopied;
};
