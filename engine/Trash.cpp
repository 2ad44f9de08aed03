#include "Trash.h"

#include "Helpers/FileDescriptor.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr std::string_view kInfoSuffix = ".trashinfo";
// Room kept for ".<n>" when a name is taken; a restore that meets more collisions than this for one
// name gives up on that item rather than probing forever.
constexpr int kMaxAttempts = 100000;
constexpr std::size_t kLongestBase = NAME_MAX - kInfoSuffix.size() - 7;

// What went wrong while making or checking a trash folder.
struct Refusal {
    const char* operation;
    std::filesystem::path path;
    int code;
};

// Makes the folder `name` inside `parentFd` unless it is there, and opens it without following a link.
// A folder this call makes gets exactly 0700, whatever the umask.
int makeAndOpenFolder(int parentFd, const char* name, const std::filesystem::path& path,
                      std::optional<Refusal>& refusal)
{
    const bool made = ::mkdirat(parentFd, name, 0700) == 0;
    if (!made && errno != EEXIST) {
        refusal = Refusal{"mkdirat", path, errno};
        return -1;
    }
    const int fd = ::openat(parentFd, name, kFolderFlags);
    if (fd < 0) {
        refusal = Refusal{"openat", path, errno};
        return -1;
    }
    if (made)
        ::fchmod(fd, 0700);
    return fd;
}

// A trash folder of a volume's top directory holds one user's deleted files: it has to be that user's
// own and closed to everyone else, or another user could read them or slip a link in.
bool isPrivateFolder(int fd, uid_t uid)
{
    struct stat st {};
    return ::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == uid && (st.st_mode & 07777) == 0700;
}

bool sameItem(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// URL escaping as trash readers undo it: every byte but the unreserved characters and "/", so that
// names that are not UTF-8 and any control byte survive the .trashinfo's line format.
std::string percentEncoded(const std::string& bytes)
{
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string encoded;
    encoded.reserve(bytes.size());
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        const bool plain = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                           (byte >= '0' && byte <= '9') || std::strchr("-_.!~*'()/", byte) != nullptr;
        if (plain && byte != '\0') {
            encoded += c;
        } else {
            encoded += '%';
            encoded += kHex[byte >> 4];
            encoded += kHex[byte & 0xF];
        }
    }
    return encoded;
}

std::string deletionDate()
{
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
    return text;
}

// The entry's name in the trash starts as the item's own; a name too long to take ".trashinfo" and a
// counter is cut, at a character boundary so that a UTF-8 name stays UTF-8.
std::string entryBase(const char* name)
{
    std::string base(name);
    if (base.size() <= kLongestBase)
        return base;
    std::size_t cut = kLongestBase;
    while (cut > 0 && (static_cast<unsigned char>(base[cut]) & 0xC0) == 0x80)
        --cut;
    base.resize(cut);
    return base;
}

// A rename that never replaces what is in the trash already: an entry without its .trashinfo (left by a
// crash, or by another program) must not be lost to ours. File systems without RENAME_NOREPLACE are
// asked first, which leaves a gap only other programs could use.
int renameWithoutReplacing(int fromFd, const char* from, int toFd, const char* to)
{
    if (::renameat2(fromFd, from, toFd, to, RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS && errno != ENOTSUP)
        return -1;
    struct stat st {};
    if (::fstatat(toFd, to, &st, AT_SYMLINK_NOFOLLOW) == 0) {
        errno = EEXIST;
        return -1;
    }
    return ::renameat(fromFd, from, toFd, to);
}

} // namespace

struct Trash::Place {
    int filesFd = -1;
    int infoFd = -1;
    std::filesystem::path folder;       // the trash folder, for messages
    std::filesystem::path topDirectory; // the base of relative Path= values; empty for the home trash
    std::optional<Refusal> refusal;     // why this volume has no trash

    ~Place()
    {
        if (filesFd >= 0)
            ::close(filesFd);
        if (infoFd >= 0)
            ::close(infoFd);
    }

    // Opens files/ and info/ inside the trash folder `trashFd` (which it closes), making what is missing.
    bool openInside(int trashFd, dev_t device)
    {
        filesFd = makeAndOpenFolder(trashFd, "files", folder / "files", refusal);
        infoFd = filesFd < 0 ? -1 : makeAndOpenFolder(trashFd, "info", folder / "info", refusal);
        ::close(trashFd);
        struct stat st {};
        // On another volume (the data home is a link), no rename could reach it.
        if (infoFd >= 0 && (::fstat(filesFd, &st) != 0 || st.st_dev != device))
            refusal = Refusal{"fstat", folder / "files", EXDEV};
        if (!refusal)
            return true;
        closeAll();
        return false;
    }

    void closeAll()
    {
        for (int* fd : {&filesFd, &infoFd}) {
            if (*fd >= 0)
                ::close(*fd);
            *fd = -1;
        }
    }

    // The original place as the .trashinfo names it: absolute in the home trash, relative to the top
    // directory in a volume's own, so that the volume can be mounted elsewhere. A path that is not below
    // the top directory (reached through another mount of the volume) stays absolute: still readable,
    // which beats removing the item for good.
    std::string pathValue(const std::filesystem::path& original) const
    {
        const std::string& path = original.native();
        if (topDirectory.empty())
            return path;
        const std::string& top = topDirectory.native();
        if (top == "/" && path.size() > 1 && path[0] == '/')
            return path.substr(1);
        if (path.size() > top.size() + 1 && path.compare(0, top.size(), top) == 0 && path[top.size()] == '/')
            return path.substr(top.size() + 1);
        return path;
    }
};

Trash::Trash(std::filesystem::path dataHome, uid_t uid)
    : m_dataHome(std::move(dataHome))
    , m_uid(uid)
{
}

Trash::~Trash() = default;

std::optional<FsError> Trash::moveToTrash(int parentFd, const char* name,
                                          const std::filesystem::path& originalPath)
{
    struct stat parent {};
    if (::fstat(parentFd, &parent) != 0)
        return FsError{"fstat", originalPath.parent_path(), errno};
    const Place& place = placeFor(parentFd, parent.st_dev, originalPath);
    if (place.refusal)
        return FsError{place.refusal->operation, place.refusal->path, kNoTrash};

    const std::string info = "[Trash Info]\nPath=" + percentEncoded(place.pathValue(originalPath)) +
                             "\nDeletionDate=" + deletionDate() + "\n";
    const std::string base = entryBase(name);
    for (int attempt = 1; attempt <= kMaxAttempts; ++attempt) {
        const std::string entry = attempt == 1 ? base : base + "." + std::to_string(attempt);
        const std::string infoName = entry + std::string(kInfoSuffix);
        // Claiming the .trashinfo first is what makes the name ours: the move only follows.
        const int fd = ::openat(place.infoFd, infoName.c_str(),
                                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0) {
            if (errno == EEXIST)
                continue;
            return FsError{"openat", place.folder / "info" / infoName, errno};
        }
        int code = FileDescriptor::writeAll(fd, info.data(), info.size());
        if (::close(fd) != 0 && code == 0)
            code = errno;
        if (code != 0) {
            ::unlinkat(place.infoFd, infoName.c_str(), 0);
            return FsError{"write", place.folder / "info" / infoName, code};
        }
        if (renameWithoutReplacing(parentFd, name, place.filesFd, entry.c_str()) == 0)
            return std::nullopt;
        code = errno;
        ::unlinkat(place.infoFd, infoName.c_str(), 0);
        if (code == EEXIST || code == ENOTEMPTY)
            continue; // files/ holds an entry without a .trashinfo under that name
        return FsError{"renameat", originalPath, code == EXDEV ? kNoTrash : code};
    }
    return FsError{"openat", place.folder / "info" / (base + std::string(kInfoSuffix)), EEXIST};
}

const Trash::Place& Trash::placeFor(int parentFd, dev_t device, const std::filesystem::path& originalPath)
{
    const std::lock_guard lock(m_mutex);
    std::unique_ptr<Place>& place = m_places[device];
    if (!place)
        place = homeDevice() == device ? makeHomePlace(device)
                                       : makeTopDirectoryPlace(parentFd, device, originalPath);
    return *place;
}

// The data home may not exist yet: its volume is then the one of the nearest folder above it.
std::optional<dev_t> Trash::homeDevice()
{
    if (!m_homeDevice) {
        m_homeDevice.emplace();
        for (std::filesystem::path path = m_dataHome; !path.empty(); path = path.parent_path()) {
            struct stat st {};
            if (::stat(path.c_str(), &st) == 0) {
                *m_homeDevice = st.st_dev;
                break;
            }
            if (path == path.parent_path())
                break;
        }
    }
    return *m_homeDevice;
}

std::unique_ptr<Trash::Place> Trash::makeHomePlace(dev_t device)
{
    auto place = std::make_unique<Place>();
    place->folder = m_dataHome / "Trash";
    std::error_code error;
    std::filesystem::create_directories(m_dataHome, error);
    if (error) {
        place->refusal = Refusal{"mkdir", m_dataHome, error.value()};
        return place;
    }
    // The user's own data home may be a link; only files/ has to be on the item's volume.
    const int dataFd = ::open(m_dataHome.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dataFd < 0) {
        place->refusal = Refusal{"open", m_dataHome, errno};
        return place;
    }
    const int trashFd = makeAndOpenFolder(dataFd, "Trash", place->folder, place->refusal);
    ::close(dataFd);
    if (trashFd >= 0)
        place->openInside(trashFd, device);
    return place;
}

std::unique_ptr<Trash::Place> Trash::makeTopDirectoryPlace(int parentFd, dev_t device,
                                                           const std::filesystem::path& originalPath)
{
    auto place = std::make_unique<Place>();
    // The top directory is the last folder on the way up through ".." that is still on the item's
    // volume. Climbing by descriptor works at any depth; the levels climbed tell how much of the
    // original path names it.
    int topFd = ::dup(parentFd);
    struct stat top {};
    int levels = 0;
    if (topFd < 0 || ::fstat(topFd, &top) != 0) {
        place->refusal = Refusal{"fstat", originalPath.parent_path(), errno};
        if (topFd >= 0)
            ::close(topFd);
        return place;
    }
    for (;;) {
        const int upFd = ::openat(topFd, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        struct stat up {};
        if (upFd < 0 || ::fstat(upFd, &up) != 0) {
            place->refusal = Refusal{"openat", originalPath.parent_path(), errno};
            if (upFd >= 0)
                ::close(upFd);
            ::close(topFd);
            return place;
        }
        if (up.st_dev != device || sameItem(up, top)) {
            ::close(upFd);
            break;
        }
        ::close(topFd);
        topFd = upFd;
        top = up;
        ++levels;
    }

    std::filesystem::path topPath = originalPath.parent_path();
    for (int i = 0; i < levels; ++i)
        topPath = topPath.parent_path();
    struct stat named {};
    if (::stat(topPath.c_str(), &named) != 0 || !sameItem(named, top)) {
        // The original path went through a link: ask the kernel where the descriptor is.
        char resolved[PATH_MAX];
        const std::string link = "/proc/self/fd/" + std::to_string(topFd);
        const ssize_t length = ::readlink(link.c_str(), resolved, sizeof resolved - 1);
        if (length <= 0 || resolved[0] != '/') {
            place->refusal = Refusal{"readlink", topPath, length < 0 ? errno : ENOENT};
            ::close(topFd);
            return place;
        }
        topPath.assign(std::string(resolved, static_cast<std::size_t>(length)));
    }
    place->topDirectory = topPath;

    // An administrator's $topdir/.Trash serves every user only when it is a real, sticky folder: in any
    // other folder one user could take away or replace another's trash.
    const int sharedFd = ::openat(topFd, ".Trash", kFolderFlags);
    struct stat shared {};
    if (sharedFd >= 0 && ::fstat(sharedFd, &shared) == 0 && (shared.st_mode & S_ISVTX)) {
        const std::string uidName = std::to_string(m_uid);
        place->folder = topPath / ".Trash" / uidName;
        std::optional<Refusal> refusal;
        const int trashFd = makeAndOpenFolder(sharedFd, uidName.c_str(), place->folder, refusal);
        if (trashFd >= 0 && !isPrivateFolder(trashFd, m_uid)) {
            ::close(trashFd);
        } else if (trashFd >= 0 && place->openInside(trashFd, device)) {
            ::close(sharedFd);
            ::close(topFd);
            return place;
        }
        place->refusal.reset();
    }
    if (sharedFd >= 0)
        ::close(sharedFd);

    const std::string ownName = ".Trash-" + std::to_string(m_uid);
    place->folder = topPath / ownName;
    const int trashFd = makeAndOpenFolder(topFd, ownName.c_str(), place->folder, place->refusal);
    ::close(topFd);
    if (trashFd < 0)
        return place;
    if (!isPrivateFolder(trashFd, m_uid)) {
        ::close(trashFd);
        place->refusal = Refusal{"fstat", place->folder, EPERM};
        return place;
    }
    place->openInside(trashFd, device);
    return place;
}
