#pragma once

#include "platform/FileManager.h"

#include <QStringList>

// Remembers what it was asked to show.
class RecordingFileManager : public FileManager {
public:
    void selectFile(const QString& path) override { selected << path; }
    QStringList selected;
};
