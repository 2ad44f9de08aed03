#pragma once

#include <optional>
#include <QIcon>
#include <QList>
#include <QString>
#include <sys/types.h>

struct RunningApplication {
    pid_t processIdentifier = 0;
    // Reverse-DNS identifier, only where one is really known; processes without one never use iCloud.
    std::optional<QString> bundleIdentifier;
    QString localizedName;
    QIcon icon;
    QString executablePath;
};

// The user's running graphical applications.
class RunningApplications {
public:
    virtual ~RunningApplications() = default;
    virtual QList<RunningApplication> runningApplications() const = 0;
    virtual std::optional<RunningApplication> runningApplicationWithProcessIdentifier(pid_t pid) const = 0;
    // Best effort: brings the application to the front; false when it could not be asked.
    virtual bool activate(pid_t pid) = 0;
};
