#pragma once

#include "platform/RunningApplications.h"

#include <map>
#include <optional>
#include <QHash>
#include <QStringList>
#include <sys/types.h>

// The user's running applications as Linux shows them: processes read from /proc, named and drawn from
// their desktop entries.
//
// A process carries a bundle identifier only when the system really records which application it is: its
// Flatpak sandbox, its Snap, the systemd unit its launcher put it in, or the desktop file its launcher left
// in its environment. A guess from the executable's name could let a shell or a daemon hold up a backup.
//
// One entry per application instance, not per process: a process whose nearest recognised ancestor is the
// same application is one of its helpers and is left out of the list (it is still found by its process
// identifier). Two instances started separately stay two entries.
class ProcRunningApplications final : public RunningApplications {
public:
    // Where the facts come from; tests point them at a fake tree.
    struct Sources {
        QString procRoot;
        // Searched in order for applications/<id>.desktop: $XDG_DATA_HOME first, then $XDG_DATA_DIRS.
        QStringList dataDirectories;
        uid_t uid = 0;
        // Preferred first, as QLocale::uiLanguages() gives them: "de-Latn-DE", "de-DE", "de".
        QStringList uiLanguages;
        // The name of an open QDBusConnection; empty for the session bus.
        QString busConnectionName;

        static Sources ofThisSession();
    };

    ProcRunningApplications();
    explicit ProcRunningApplications(Sources sources);

    QList<RunningApplication> runningApplications() const override;
    std::optional<RunningApplication> runningApplicationWithProcessIdentifier(pid_t pid) const override;
    // Asks the application over D-Bus (org.freedesktop.Application.Activate) when its identifier owns a
    // name on the bus; false when there was nobody to ask.
    bool activate(pid_t pid) override;

private:
    struct DesktopEntry {
        QString name;
        QIcon icon;
    };
    // What a process's environment tells about it.
    struct Environment {
        bool graphical = false;
        QString launchedDesktopFile;
        QString desktopFileHint;
        QString snapName;
    };
    // How a process was recognised: the key groups the processes of one application; the desktop entry,
    // found by file or by id, names it.
    struct Identity {
        QString key;
        QString desktopId;
        QString desktopFile;
        std::optional<QString> bundleIdentifier;
    };
    struct Application {
        RunningApplication description;
        QString key;
    };
    struct Process {
        pid_t parent = 0;
        std::optional<Application> application;
    };
    using ProcessTable = std::map<pid_t, Process>;

    ProcessTable readProcessTable() const;
    std::optional<Process> readProcess(int procFd, pid_t pid) const;
    std::optional<Application> readApplication(int processFd, pid_t pid) const;
    static Environment environmentOf(const QByteArray& environText);
    Identity identify(int processFd, const Environment& environment) const;
    static Identity snapIdentity(const QString& snapName, const Environment& environment);
    RunningApplication describe(int processFd, pid_t pid, const Identity& identity) const;
    static bool isHelper(const Process& process, const ProcessTable& table);

    std::optional<DesktopEntry> desktopEntryFor(const Identity& identity) const;
    std::optional<DesktopEntry> desktopEntryWithId(const QString& desktopId) const;
    std::optional<DesktopEntry> desktopEntryAtPath(const QString& path) const;
    std::optional<DesktopEntry> loadDesktopEntry(const QString& path) const;

    bool askToActivate(const QString& bundleIdentifier) const;

    Sources m_sources;
    // Desktop-entry locale keys in the order they are tried: "de_DE", "de".
    QStringList m_localeKeys;
    // Ids and file paths share one cache: a path starts with '/', an id never does.
    mutable QHash<QString, std::optional<DesktopEntry>> m_desktopEntries;
};
