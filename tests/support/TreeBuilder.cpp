#include "TreeBuilder.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace TreeBuilder {

namespace {

void check(bool ok, const std::string& what)
{
    if (!ok)
        throw std::runtime_error(what + ": " + std::strerror(errno));
}

void removeInside(int folderFd)
{
    int listFd = ::dup(folderFd);
    DIR* dir = ::fdopendir(listFd);
    if (!dir)
        return;
    while (dirent* ent = ::readdir(dir)) {
        if (!std::strcmp(ent->d_name, ".") || !std::strcmp(ent->d_name, ".."))
            continue;
        struct stat st {};
        if (::fstatat(folderFd, ent->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        if (S_ISDIR(st.st_mode)) {
            ::fchmodat(folderFd, ent->d_name, 0700, 0);
            int child = ::openat(folderFd, ent->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (child >= 0) {
                removeInside(child);
                ::close(child);
            }
            ::unlinkat(folderFd, ent->d_name, AT_REMOVEDIR);
        } else {
            ::unlinkat(folderFd, ent->d_name, 0);
        }
    }
    ::closedir(dir);
}

} // namespace

void writeFile(const std::filesystem::path& file, std::string_view content)
{
    std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    check(static_cast<bool>(out), "write " + file.string());
}

void writeFileOfSize(const std::filesystem::path& file, std::size_t size)
{
    writeFile(file, std::string(size, 'x'));
}

void makeFolder(const std::filesystem::path& folder)
{
    std::filesystem::create_directories(folder);
}

void makeSymlink(const std::string& target, const std::filesystem::path& link)
{
    std::filesystem::create_directories(link.parent_path());
    check(::symlink(target.c_str(), link.c_str()) == 0, "symlink " + link.string());
}

void makeSocket(const std::filesystem::path& path)
{
    std::filesystem::create_directories(path.parent_path());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    const bool bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    check(bound, "bind " + path.string());
}

std::string readFile(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void setTimes(const std::filesystem::path& item, timespec modified)
{
    setTimes(item, modified, {0, UTIME_OMIT});
}

void setTimes(const std::filesystem::path& item, timespec modified, timespec accessed)
{
    const timespec times[2] = {accessed, modified};
    check(::utimensat(AT_FDCWD, item.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0, "utimensat " + item.string());
}

std::string describe(const std::filesystem::path& item)
{
    struct stat status {};
    if (::lstat(item.c_str(), &status) != 0)
        return "missing";
    const std::string common = std::to_string(status.st_mode & 07777) + " " +
                               std::to_string(status.st_mtim.tv_sec) + "." +
                               std::to_string(status.st_mtim.tv_nsec);
    switch (status.st_mode & S_IFMT) {
    case S_IFDIR:
        return "folder " + common;
    case S_IFLNK:
        return "link " + common + " -> " + std::filesystem::read_symlink(item).native();
    case S_IFREG:
        return "file " + common + " " + readFile(item);
    default:
        return "other " + common;
    }
}

std::map<std::string, std::string> snapshot(const std::filesystem::path& root)
{
    std::map<std::string, std::string> items;
    for (const std::filesystem::directory_entry& entry : std::filesystem::recursive_directory_iterator(root))
        items[entry.path().lexically_relative(root).native()] = describe(entry.path());
    return items;
}

Items contents(const std::filesystem::path& root)
{
    Items items;
    for (const std::filesystem::directory_entry& entry :
         std::filesystem::recursive_directory_iterator(root)) {
        const std::filesystem::file_status status = entry.symlink_status();
        std::string item = entry.path().lexically_relative(root).native() + "=";
        if (std::filesystem::is_symlink(status))
            item += "-> " + std::filesystem::read_symlink(entry.path()).native();
        else if (std::filesystem::is_directory(status))
            item += "/";
        else
            item += std::filesystem::is_regular_file(status) ? readFile(entry.path()) : "(special)";
        items.insert(item);
    }
    return items;
}

void writeItems(const std::filesystem::path& root, const Items& items, std::optional<timespec> modified)
{
    for (const std::string& item : items) {
        const std::size_t equals = item.find('=');
        const std::filesystem::path path = root / item.substr(0, equals);
        const std::string content = item.substr(equals + 1);
        if (content == "/")
            makeFolder(path);
        else if (content.starts_with("-> "))
            makeSymlink(content.substr(3), path);
        else
            writeFile(path, content);
        if (modified)
            setTimes(path, *modified);
    }
}

int makeDeepChain(const std::filesystem::path& base, const char* name, int depth)
{
    int fd = ::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    check(fd >= 0, "open " + base.string());
    for (int level = 0; level < depth; ++level) {
        check(::mkdirat(fd, name, 0755) == 0 || errno == EEXIST, "mkdirat");
        int next = ::openat(fd, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        check(next >= 0, "openat");
        fd = next;
    }
    return fd;
}

void removeTree(const std::filesystem::path& path)
{
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0)
        return;
    if (!S_ISDIR(st.st_mode)) {
        ::unlink(path.c_str());
        return;
    }
    ::chmod(path.c_str(), 0700);
    int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd >= 0) {
        removeInside(fd);
        ::close(fd);
    }
    ::rmdir(path.c_str());
}

std::string trashedOriginal(const std::filesystem::path& trashInfo)
{
    const std::string info = readFile(trashInfo), start = "[Trash Info]\nPath=";
    const std::size_t end = info.find("\nDeletionDate=");
    if (!info.starts_with(start) || end == std::string::npos)
        return {};
    std::string path;
    for (std::size_t i = start.size(); i < end; ++i) {
        if (info[i] == '%' && i + 2 < end) {
            path += static_cast<char>(std::stoi(info.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            path += info[i];
        }
    }
    return path;
}

std::optional<std::string> runUnprivileged(const std::function<std::string()>& work)
{
    int fds[2];
    if (::pipe(fds) != 0)
        return std::nullopt;
    pid_t child = ::fork();
    if (child < 0)
        return std::nullopt;
    if (child == 0) {
        ::close(fds[0]);
        if (::geteuid() == 0 &&
            (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0))
            ::_exit(3);
        const std::string answer = work();
        ssize_t written = ::write(fds[1], answer.data(), answer.size());
        ::_exit(written == static_cast<ssize_t>(answer.size()) ? 0 : 4);
    }
    ::close(fds[1]);
    std::string answer;
    char buffer[4096];
    ssize_t got = 0;
    while ((got = ::read(fds[0], buffer, sizeof buffer)) > 0)
        answer.append(buffer, static_cast<std::size_t>(got));
    ::close(fds[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return std::nullopt;
    return answer;
}

} // namespace TreeBuilder
