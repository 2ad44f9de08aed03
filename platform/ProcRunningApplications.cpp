#include "ProcRunningApplications.h"

#include "Helpers/FileDescriptor.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QStandardPaths>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

// The list is read once a second while the apps-to-quit window is open, on the main thread: every read is
// of a small file, bounded, and never waits on anything but the kernel.

namespace {

constexpr qsizetype kStatusLimit = 16 * 1024;
constexpr qsizetype kEnvironmentLimit = 256 * 1024;
constexpr qsizetype kCgroupLimit = 16 * 1024;
constexpr qsizetype kFlatpakInfoLimit = 64 * 1024;
constexpr qsizetype kDesktopEntryLimit = 512 * 1024;
constexpr qsizetype kCommandLimit = 64;
constexpr int kBusTimeoutMs = 250;
// A parent chain is walked only this far: /proc can change under the walk, and a loop must not hang it.
constexpr int kAncestorLimit = 64;

// Nothing here may block: an environment can name a FIFO or a device as its desktop file, so only regular
// files are read (the files of /proc are regular, with a size of 0).
std::optional<QByteArray> readSmallFile(int folderFd, const char* name, qsizetype limit)
{
    const int fd = ::openat(folderFd, name, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0)
        return std::nullopt;
    const FileDescriptor closer(fd);
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode))
        return std::nullopt;
    QByteArray content;
    char buffer[4096];
    while (content.size() < limit) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return std::nullopt; // a process that exits mid-read answers ESRCH
        if (got == 0)
            break;
        content.append(buffer, static_cast<qsizetype>(got));
    }
    content.truncate(limit);
    return content;
}

std::string_view viewOf(const QByteArray& bytes)
{
    return {bytes.constData(), static_cast<std::size_t>(bytes.size())};
}

QString stringOf(std::string_view bytes)
{
    return QString::fromUtf8(bytes.data(), static_cast<qsizetype>(bytes.size()));
}

std::string_view trimmed(std::string_view text)
{
    const std::size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

template<typename Visit>
void forEachPiece(std::string_view text, char separator, Visit visit)
{
    while (!text.empty()) {
        const std::size_t end = text.find(separator);
        visit(text.substr(0, end));
        if (end == std::string_view::npos)
            return;
        text.remove_prefix(end + 1);
    }
}

template<typename Number>
std::optional<Number> leadingNumber(std::string_view text)
{
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end == text.data())
        return std::nullopt;
    return number;
}

// Calls visit(key, value) for each entry of one group of an ini-style file (desktop entries, .flatpak-info).
template<typename Visit>
void forEachKeyInGroup(std::string_view text, std::string_view group, Visit visit)
{
    bool inGroup = false;
    forEachPiece(text, '\n', [&](std::string_view line) {
        line = trimmed(line);
        if (line.empty() || line.front() == '#')
            return;
        if (line.front() == '[') {
            inGroup = line.size() == group.size() + 2 && line.substr(1, group.size()) == group;
            return;
        }
        const std::size_t equals = line.find('=');
        if (inGroup && equals != std::string_view::npos)
            visit(trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)));
    });
}

// --- /proc/PID/status ---

struct ProcessStatus {
    pid_t parent = 0;
    std::optional<uid_t> uid;
    char state = '?';
    bool kernelThread = false;
};

ProcessStatus parseStatus(std::string_view text)
{
    ProcessStatus status;
    forEachPiece(text, '\n', [&](std::string_view line) {
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos)
            return;
        const std::string_view field = line.substr(0, colon);
        const std::string_view value = trimmed(line.substr(colon + 1));
        if (field == "State" && !value.empty())
            status.state = value.front();
        else if (field == "PPid")
            status.parent = leadingNumber<pid_t>(value).value_or(0);
        else if (field == "Uid")
            status.uid = leadingNumber<uid_t>(value); // the real uid: who started it, setuid or not
        else if (field == "Kthread")
            status.kernelThread = value == "1";
    });
    return status;
}

// Kernels without the Kthread line still keep kernel threads out: they have no environment to show a display
// and no cgroup that names an application.
bool isLiveProcessOf(const ProcessStatus& status, uid_t uid)
{
    const bool exited = status.state == 'Z' || status.state == 'X';
    return status.uid == uid && !status.kernelThread && !exited;
}

std::optional<pid_t> processIdentifierNamed(const char* name)
{
    const std::string_view text(name);
    const std::optional<pid_t> pid = leadingNumber<pid_t>(text);
    if (!pid || *pid <= 0 || std::to_string(*pid) != text)
        return std::nullopt;
    return pid;
}

std::string_view commandOf(std::string_view comm)
{
    return comm.substr(0, comm.find('\n'));
}

QString executablePath(int processFd)
{
    char buffer[PATH_MAX];
    const ssize_t length = ::readlinkat(processFd, "exe", buffer, sizeof buffer);
    if (length <= 0)
        return {};
    return QFile::decodeName(QByteArray(buffer, static_cast<qsizetype>(length)));
}

// --- Identifiers ---

// "org.gnome.Nautilus" names one application; "firefox" could be anything and matches too much.
bool isReverseDns(const QString& id)
{
    const QList<QStringView> labels = QStringView(id).split(QLatin1Char('.'));
    if (labels.size() < 2)
        return false;
    for (QStringView label : labels) {
        if (label.isEmpty())
            return false;
        for (QChar c : label) {
            const bool allowed =
                (c.isLetterOrNumber() && c.unicode() < 128) || c == QLatin1Char('_') || c == QLatin1Char('-');
            if (!allowed)
                return false;
        }
    }
    return true;
}

std::optional<QString> bundleIdentifierOf(const QString& id)
{
    return isReverseDns(id) ? std::optional<QString>(id) : std::nullopt;
}

QString desktopIdOfFile(const QString& path)
{
    QString name = QFileInfo(path).fileName();
    if (name.endsWith(QLatin1String(".desktop")))
        name.chop(8);
    return name;
}

std::optional<QString> flatpakApplicationId(int processFd)
{
    const std::optional<QByteArray> info = readSmallFile(processFd, "root/.flatpak-info", kFlatpakInfoLimit);
    if (!info)
        return std::nullopt;
    QString name;
    forEachKeyInGroup(viewOf(*info), "Application", [&](std::string_view key, std::string_view value) {
        if (key == "name")
            name = stringOf(value);
    });
    return name.isEmpty() ? std::nullopt : std::optional<QString>(name);
}

// --- systemd units in /proc/PID/cgroup ---

struct Unit {
    enum class Kind { Application, DBusService, Snap };
    Kind kind;
    QString id;
};

std::optional<char> hexByte(std::string_view digits)
{
    unsigned value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    if (digits.size() != 2 || error != std::errc() || end != digits.data() + digits.size())
        return std::nullopt;
    return static_cast<char>(value);
}

// systemd writes every byte outside [A-Za-z0-9:_.] of a name as \xHH, so a '-' left bare is a separator.
QString unescapedUnitPart(std::string_view text)
{
    QByteArray bytes;
    while (!text.empty()) {
        const std::optional<char> escaped =
            text.starts_with("\\x") ? hexByte(text.substr(2, 2)) : std::nullopt;
        bytes.append(escaped.value_or(text.front()));
        text.remove_prefix(escaped ? 4 : 1);
    }
    return QString::fromUtf8(bytes);
}

// app[-<launcher>]-<id>-<random>.scope and app[-<launcher>]-<id>[@<random>].service. A launcher that left
// dashes in the id unescaped is read as launcher, id, random: the id keeps its inner dashes.
std::optional<Unit> applicationUnit(std::string_view name, bool scope)
{
    if (scope && name.find('-') == std::string_view::npos)
        return std::nullopt;
    name = name.substr(0, scope ? name.rfind('-') : name.rfind('@'));
    if (const std::size_t launcherEnd = name.find('-'); launcherEnd != std::string_view::npos)
        name.remove_prefix(launcherEnd + 1);
    if (name.empty())
        return std::nullopt;
    return Unit{Unit::Kind::Application, unescapedUnitPart(name)};
}

// dbus-:<unique name>-<service name>@<n>.service: a service started by the bus on request.
std::optional<Unit> dbusServiceUnit(std::string_view name)
{
    name = name.substr(0, name.rfind('@'));
    const std::size_t dash = name.find('-');
    if (dash == std::string_view::npos || dash + 1 == name.size())
        return std::nullopt;
    return Unit{Unit::Kind::DBusService, unescapedUnitPart(name.substr(dash + 1))};
}

// snap.<snap>.<app>[-<uuid>|.<uuid>].scope, snap.<snap>.<app>.service, snap.<snap>.hook.<hook>...
std::optional<Unit> snapUnit(std::string_view name)
{
    const std::string_view snap = name.substr(0, name.find('.'));
    if (snap.empty() || snap.size() == name.size())
        return std::nullopt;
    return Unit{Unit::Kind::Snap, stringOf(snap)};
}

bool isUnit(std::string_view component)
{
    return component.ends_with(".scope") || component.ends_with(".service");
}

std::optional<Unit> unitNamed(std::string_view component)
{
    const bool scope = component.ends_with(".scope");
    const std::string_view name = component.substr(0, component.rfind('.'));
    if (name.starts_with("app-"))
        return applicationUnit(name.substr(4), scope);
    if (name.starts_with("snap."))
        return snapUnit(name.substr(5));
    if (name.starts_with("dbus-:") && !scope)
        return dbusServiceUnit(name.substr(6));
    return std::nullopt;
}

// The process belongs to the innermost unit on its path. Groups an application made inside its own unit
// are passed over; an outer unit never speaks for a process that sits in a unit of its own.
std::optional<Unit> unitOnPath(std::string_view path)
{
    while (!path.empty()) {
        const std::size_t slash = path.rfind('/');
        const std::string_view component = slash == std::string_view::npos ? path : path.substr(slash + 1);
        if (isUnit(component))
            return unitNamed(component);
        if (slash == std::string_view::npos)
            return std::nullopt;
        path = path.substr(0, slash);
    }
    return std::nullopt;
}

// Lines are "<hierarchy>:<controllers>:<path>"; the unified hierarchy ("0::") and systemd's own one
// ("name=systemd") carry the unit names.
std::optional<Unit> unitOfCgroups(std::string_view cgroups)
{
    std::optional<Unit> found;
    forEachPiece(cgroups, '\n', [&](std::string_view line) {
        const std::size_t first = line.find(':');
        const std::size_t second = first == std::string_view::npos ? first : line.find(':', first + 1);
        if (found || second == std::string_view::npos)
            return;
        const std::string_view controllers = line.substr(first + 1, second - first - 1);
        const bool systemd = line.starts_with("0::") || controllers == "name=systemd";
        if (systemd)
            found = unitOnPath(line.substr(second + 1));
    });
    return found;
}

// --- Desktop entries ---

struct DesktopEntryKeys {
    QHash<QString, QString> names; // by locale; "" for the untranslated Name
    QString icon;
};

// The escapes a desktop entry's string values may hold: \s \n \t \r \\.
QString unescapedValue(std::string_view value)
{
    QByteArray bytes;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] != '\\' || i + 1 == value.size()) {
            bytes.append(value[i]);
            continue;
        }
        switch (value[++i]) {
        case 's':
            bytes.append(' ');
            break;
        case 'n':
            bytes.append('\n');
            break;
        case 't':
            bytes.append('\t');
            break;
        case 'r':
            bytes.append('\r');
            break;
        default:
            bytes.append(value[i]);
            break;
        }
    }
    return QString::fromUtf8(bytes);
}

DesktopEntryKeys parseDesktopEntry(std::string_view text)
{
    DesktopEntryKeys keys;
    forEachKeyInGroup(text, "Desktop Entry", [&](std::string_view key, std::string_view value) {
        if (key == "Name")
            keys.names.insert(QString(), unescapedValue(value));
        else if (key.starts_with("Name[") && key.ends_with(']'))
            keys.names.insert(stringOf(key.substr(5, key.size() - 6)), unescapedValue(value));
        else if (key == "Icon")
            keys.icon = unescapedValue(value);
    });
    return keys;
}

QIcon iconNamed(const QString& icon)
{
    if (icon.isEmpty())
        return {};
    if (QDir::isAbsolutePath(icon))
        return QFileInfo::exists(icon) ? QIcon(icon) : QIcon();
    return QIcon::fromTheme(icon);
}

bool isTerritory(const QString& part)
{
    const bool letters = part.size() == 2 && part.at(0).isUpper() && part.at(1).isUpper();
    const bool digits =
        part.size() == 3 && part.at(0).isDigit() && part.at(1).isDigit() && part.at(2).isDigit();
    return letters || digits;
}

// "de-Latn-DE" → Name[de_DE], then Name[de]: the order a desktop entry's translations are matched in.
QStringList localeKeysFor(const QStringList& uiLanguages)
{
    QStringList keys;
    for (const QString& language : uiLanguages) {
        const QStringList parts = language.split(QLatin1Char('-'), Qt::SkipEmptyParts);
        if (parts.isEmpty())
            continue;
        if (parts.size() > 1 && isTerritory(parts.last()))
            keys << parts.first() + QLatin1Char('_') + parts.last();
        keys << parts.first();
    }
    keys.removeDuplicates();
    return keys;
}

QString localizedName(const QHash<QString, QString>& names, const QStringList& localeKeys)
{
    for (const QString& key : localeKeys) {
        const auto name = names.constFind(key);
        if (name != names.cend() && !name->isEmpty())
            return *name;
    }
    return names.value(QString());
}

// --- D-Bus ---

// GApplication's rule, which the org.freedesktop.Application object follows: org.example.My-App is at
// /org/example/My_App.
QString objectPathOf(const QString& bundleIdentifier)
{
    QString path = QLatin1Char('/') + bundleIdentifier;
    return path.replace(QLatin1Char('.'), QLatin1Char('/')).replace(QLatin1Char('-'), QLatin1Char('_'));
}

bool nameHasOwner(const QDBusConnection& bus, const QString& name)
{
    QDBusMessage query = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameHasOwner"));
    query << name;
    const QDBusMessage reply = bus.call(query, QDBus::Block, kBusTimeoutMs);
    return reply.type() == QDBusMessage::ReplyMessage && reply.arguments().value(0).toBool();
}

} // namespace

ProcRunningApplications::Sources ProcRunningApplications::Sources::ofThisSession()
{
    Sources sources;
    sources.procRoot = QStringLiteral("/proc");
    sources.dataDirectories = QStandardPaths::standardLocations(QStandardPaths::GenericDataLocation);
    sources.uid = ::getuid();
    sources.uiLanguages = QLocale().uiLanguages();
    return sources;
}

ProcRunningApplications::ProcRunningApplications()
    : ProcRunningApplications(Sources::ofThisSession())
{
}

ProcRunningApplications::ProcRunningApplications(Sources sources)
    : m_sources(std::move(sources))
    , m_localeKeys(localeKeysFor(m_sources.uiLanguages))
{
}

QList<RunningApplication> ProcRunningApplications::runningApplications() const
{
    const ProcessTable table = readProcessTable();
    QList<RunningApplication> applications;
    for (const auto& [pid, process] : table) {
        if (process.application && !isHelper(process, table))
            applications << process.application->description;
    }
    return applications;
}

std::optional<RunningApplication>
ProcRunningApplications::runningApplicationWithProcessIdentifier(pid_t pid) const
{
    const int procFd =
        ::open(QFile::encodeName(m_sources.procRoot).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const FileDescriptor closer(procFd);
    const std::optional<Process> process = procFd >= 0 && pid > 0 ? readProcess(procFd, pid) : std::nullopt;
    if (!process || !process->application)
        return std::nullopt;
    return process->application->description;
}

bool ProcRunningApplications::activate(pid_t pid)
{
    const std::optional<RunningApplication> application = runningApplicationWithProcessIdentifier(pid);
    if (!application || !application->bundleIdentifier)
        return false;
    return askToActivate(*application->bundleIdentifier);
}

ProcRunningApplications::ProcessTable ProcRunningApplications::readProcessTable() const
{
    ProcessTable table;
    const int procFd =
        ::open(QFile::encodeName(m_sources.procRoot).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (procFd < 0)
        return table;
    DIR* folder = ::fdopendir(procFd);
    if (!folder) {
        ::close(procFd);
        return table;
    }
    while (const dirent* entry = ::readdir(folder)) {
        const std::optional<pid_t> pid = processIdentifierNamed(entry->d_name);
        std::optional<Process> process = pid ? readProcess(procFd, *pid) : std::nullopt;
        if (process)
            table.emplace(*pid, std::move(*process));
    }
    ::closedir(folder);
    return table;
}

// Every file is read through one descriptor of the process's folder, so all of them describe the same
// process even if its number is reused meanwhile; one that is gone or not ours to read is simply skipped.
std::optional<ProcRunningApplications::Process> ProcRunningApplications::readProcess(int procFd,
                                                                                     pid_t pid) const
{
    const int processFd = ::openat(procFd, std::to_string(pid).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (processFd < 0)
        return std::nullopt;
    const FileDescriptor closer(processFd);
    const std::optional<QByteArray> statusText = readSmallFile(processFd, "status", kStatusLimit);
    if (!statusText)
        return std::nullopt;
    const ProcessStatus status = parseStatus(viewOf(*statusText));
    Process process{status.parent, std::nullopt};
    if (isLiveProcessOf(status, m_sources.uid))
        process.application = readApplication(processFd, pid);
    return process;
}

std::optional<ProcRunningApplications::Application> ProcRunningApplications::readApplication(int processFd,
                                                                                             pid_t pid) const
{
    const std::optional<QByteArray> environText = readSmallFile(processFd, "environ", kEnvironmentLimit);
    if (!environText)
        return std::nullopt;
    const Environment environment = environmentOf(*environText);
    const Identity identity = identify(processFd, environment);
    if (identity.key.isEmpty() && !environment.graphical)
        return std::nullopt;
    return Application{describe(processFd, pid, identity), identity.key};
}

ProcRunningApplications::Environment ProcRunningApplications::environmentOf(const QByteArray& environText)
{
    const auto path = [](std::string_view value) {
        return QFile::decodeName(QByteArray(value.data(), static_cast<qsizetype>(value.size())));
    };
    Environment environment;
    forEachPiece(viewOf(environText), '\0', [&](std::string_view entry) {
        const std::string_view name = entry.substr(0, entry.find('='));
        const std::string_view value = entry.substr(std::min(entry.size(), name.size() + 1));
        if ((name == "DISPLAY" || name == "WAYLAND_DISPLAY") && !value.empty())
            environment.graphical = true;
        else if (name == "GIO_LAUNCHED_DESKTOP_FILE")
            environment.launchedDesktopFile = path(value);
        else if (name == "BAMF_DESKTOP_FILE_HINT")
            environment.desktopFileHint = path(value);
        else if (name == "SNAP_NAME")
            environment.snapName = stringOf(value);
    });
    return environment;
}

// The most direct record wins. The sandbox and the unit are set for this very process; the launcher's
// environment variables are inherited by everything it starts, so they come last.
ProcRunningApplications::Identity ProcRunningApplications::identify(int processFd,
                                                                    const Environment& environment) const
{
    const auto byId = [](const QString& id) { return Identity{id, id, QString(), bundleIdentifierOf(id)}; };
    const auto byFile = [](const QString& file) {
        const QString id = desktopIdOfFile(file);
        return Identity{id, id, file, bundleIdentifierOf(id)};
    };
    if (const std::optional<QString> flatpak = flatpakApplicationId(processFd))
        return byId(*flatpak);
    const std::optional<QByteArray> cgroups = readSmallFile(processFd, "cgroup", kCgroupLimit);
    const std::optional<Unit> unit = cgroups ? unitOfCgroups(viewOf(*cgroups)) : std::nullopt;
    if (unit && unit->kind == Unit::Kind::Snap)
        return snapIdentity(unit->id, environment);
    if (!environment.snapName.isEmpty())
        return snapIdentity(environment.snapName, environment);
    if (unit && unit->kind == Unit::Kind::Application)
        return byId(unit->id);
    // The bus starts daemons the same way; only a service that is also a desktop application counts.
    if (unit && unit->kind == Unit::Kind::DBusService && desktopEntryWithId(unit->id))
        return byId(unit->id);
    if (!environment.launchedDesktopFile.isEmpty())
        return byFile(environment.launchedDesktopFile);
    if (!environment.desktopFileHint.isEmpty())
        return byFile(environment.desktopFileHint);
    return {};
}

// snapd installs a snap's desktop files as <snap>_<name>.desktop, and since 2.66 under a reverse-DNS id of
// the snap's choosing. The snap's own launcher leaves the file in BAMF_DESKTOP_FILE_HINT; without it the
// main application's <snap>_<snap>.desktop names the snap. The bundle identifier is the desktop id with
// snapd's prefix taken off, when that is reverse-DNS; the snap's name alone ("firefox") never is one.
ProcRunningApplications::Identity ProcRunningApplications::snapIdentity(const QString& snapName,
                                                                        const Environment& environment)
{
    const QString prefix = snapName + QLatin1Char('_');
    const QString file = environment.desktopFileHint;
    const QString desktopId = file.isEmpty() ? prefix + snapName : desktopIdOfFile(file);
    const QString chosenId = desktopId.startsWith(prefix) ? desktopId.mid(prefix.size()) : desktopId;
    return Identity{QStringLiteral("snap:") + snapName, desktopId, file, bundleIdentifierOf(chosenId)};
}

RunningApplication ProcRunningApplications::describe(int processFd, pid_t pid, const Identity& identity) const
{
    RunningApplication description;
    description.processIdentifier = pid;
    description.bundleIdentifier = identity.bundleIdentifier;
    description.executablePath = executablePath(processFd);
    if (const std::optional<DesktopEntry> entry = desktopEntryFor(identity)) {
        description.localizedName = entry->name;
        description.icon = entry->icon;
    }
    if (description.localizedName.isEmpty()) {
        const std::optional<QByteArray> comm = readSmallFile(processFd, "comm", kCommandLimit);
        description.localizedName = comm ? stringOf(commandOf(viewOf(*comm))) : QString();
    }
    return description;
}

// Walks up through processes that are not recognised applications (a shell, a sandbox's setuid helper we
// cannot read) to the nearest one that is.
bool ProcRunningApplications::isHelper(const Process& process, const ProcessTable& table)
{
    const QString& key = process.application->key;
    if (key.isEmpty())
        return false;
    pid_t ancestor = process.parent;
    for (int depth = 0; depth < kAncestorLimit && ancestor > 1; ++depth) {
        const auto found = table.find(ancestor);
        if (found == table.end())
            return false;
        const std::optional<Application>& application = found->second.application;
        if (application && !application->key.isEmpty())
            return application->key == key;
        ancestor = found->second.parent;
    }
    return false;
}

std::optional<ProcRunningApplications::DesktopEntry>
ProcRunningApplications::desktopEntryFor(const Identity& identity) const
{
    if (!identity.desktopFile.isEmpty()) {
        if (std::optional<DesktopEntry> entry = desktopEntryAtPath(identity.desktopFile))
            return entry;
    }
    if (identity.desktopId.isEmpty())
        return std::nullopt;
    return desktopEntryWithId(identity.desktopId);
}

std::optional<ProcRunningApplications::DesktopEntry>
ProcRunningApplications::desktopEntryWithId(const QString& desktopId) const
{
    auto cached = m_desktopEntries.constFind(desktopId);
    if (cached != m_desktopEntries.cend())
        return *cached;
    std::optional<DesktopEntry> entry;
    const QString file = QStringLiteral("/applications/") + desktopId + QStringLiteral(".desktop");
    for (const QString& folder : m_sources.dataDirectories) {
        entry = loadDesktopEntry(folder + file);
        if (entry)
            break;
    }
    m_desktopEntries.insert(desktopId, entry);
    return entry;
}

std::optional<ProcRunningApplications::DesktopEntry>
ProcRunningApplications::desktopEntryAtPath(const QString& path) const
{
    if (!QDir::isAbsolutePath(path) || !path.endsWith(QLatin1String(".desktop")))
        return std::nullopt;
    auto cached = m_desktopEntries.constFind(path);
    if (cached == m_desktopEntries.cend())
        cached = m_desktopEntries.insert(path, loadDesktopEntry(path));
    return *cached;
}

std::optional<ProcRunningApplications::DesktopEntry>
ProcRunningApplications::loadDesktopEntry(const QString& path) const
{
    const std::optional<QByteArray> text =
        readSmallFile(AT_FDCWD, QFile::encodeName(path).constData(), kDesktopEntryLimit);
    if (!text)
        return std::nullopt;
    const DesktopEntryKeys keys = parseDesktopEntry(viewOf(*text));
    return DesktopEntry{localizedName(keys.names, m_localeKeys), iconNamed(keys.icon)};
}

// Activation is asked for, never awaited: whether the application comes to the front is its own affair.
bool ProcRunningApplications::askToActivate(const QString& bundleIdentifier) const
{
    const QDBusConnection bus = m_sources.busConnectionName.isEmpty()
                                    ? QDBusConnection::sessionBus()
                                    : QDBusConnection(m_sources.busConnectionName);
    if (!bus.isConnected() || !nameHasOwner(bus, bundleIdentifier))
        return false;
    QDBusMessage activate = QDBusMessage::createMethodCall(bundleIdentifier, objectPathOf(bundleIdentifier),
                                                           QStringLiteral("org.freedesktop.Application"),
                                                           QStringLiteral("Activate"));
    activate << QVariantMap(); // platform_data: a{sv}
    activate.setAutoStartService(false);
    return bus.send(activate);
}
