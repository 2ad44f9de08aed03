#include "Logging.h"

// Warnings and above only, unless the rules ask for more: what is logged here is information.
Q_LOGGING_CATEGORY(lcBackup, "pelmora.backup", QtWarningMsg)
Q_LOGGING_CATEGORY(lcRestore, "pelmora.restore", QtWarningMsg)
