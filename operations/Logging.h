#pragma once

#include <QLoggingCategory>

// Failures no window shows (a half-made folder that could not be cleaned up, a quit that could not wait
// for its copy) go here. Off by default: QT_LOGGING_RULES="pelmora.*.info=true" turns them on.
Q_DECLARE_LOGGING_CATEGORY(lcBackup)  // "pelmora.backup"
Q_DECLARE_LOGGING_CATEGORY(lcRestore) // "pelmora.restore"
