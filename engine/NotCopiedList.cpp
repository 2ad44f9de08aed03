#include "NotCopiedList.h"

#include "Helpers/FileDescriptor.h"

#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <unistd.h>

namespace {

constexpr const char* kSuffix = ".not-copied";
constexpr const char* kHeader = "# Items that could not be copied into this backup: errno, call, path\n";

bool needsEscape(unsigned char byte)
{
    return byte == '%' || byte < 0x20 || byte == 0x7f;
}

std::string escaped(const std::string& bytes)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(bytes.size());
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (!needsEscape(byte)) {
            out += c;
            continue;
        }
        out += '%';
        out += digits[byte >> 4];
        out += digits[byte & 0xf];
    }
    return out;
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

std::optional<std::string> unescaped(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (i + 2 >= text.size())
            return std::nullopt;
        const int high = hexValue(text[i + 1]);
        const int low = hexValue(text[i + 2]);
        if (high < 0 || low < 0)
            return std::nullopt;
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return out;
}

std::optional<FsError> parseLine(const std::string& line)
{
    const std::size_t firstTab = line.find('\t');
    const std::size_t secondTab = firstTab == std::string::npos ? firstTab : line.find('\t', firstTab + 1);
    if (secondTab == std::string::npos)
        return std::nullopt;
    FsError item;
    const char* first = line.data();
    if (std::from_chars(first, first + firstTab, item.code).ec != std::errc())
        return std::nullopt;
    item.operation = line.substr(firstTab + 1, secondTab - firstTab - 1);
    const std::optional<std::string> path = unescaped(line.substr(secondTab + 1));
    if (!path || path->empty())
        return std::nullopt;
    item.path = *path;
    return item;
}

std::string serialized(const std::vector<FsError>& items)
{
    std::string text = kHeader;
    for (const FsError& item : items)
        text += std::to_string(item.code) + '\t' + escaped(item.operation) + '\t' +
                escaped(item.path.native()) + '\n';
    return text;
}

std::optional<FsError> failure(const char* operation, const std::filesystem::path& path)
{
    return FsError{operation, path, errno};
}

std::optional<FsError> writeAll(int fd, const std::string& text, const std::filesystem::path& path)
{
    if (const int code = FileDescriptor::writeAll(fd, text.data(), text.size()))
        return FsError{"write", path, code};
    if (::fsync(fd) != 0)
        return failure("fsync", path);
    return std::nullopt;
}

} // namespace

std::filesystem::path NotCopiedList::pathFor(const std::filesystem::path& backupFolder)
{
    std::filesystem::path folder = backupFolder;
    if (!folder.has_filename())
        folder = folder.parent_path();
    return std::filesystem::path(folder.native() + kSuffix);
}

std::optional<FsError> NotCopiedList::write(const std::filesystem::path& backupFolder,
                                            const std::vector<FsError>& items)
{
    const std::filesystem::path target = pathFor(backupFolder);
    const std::filesystem::path temporary(target.native() + ".new");
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0)
        return failure("open", temporary);
    std::optional<FsError> error = writeAll(fd, serialized(items), temporary);
    if (::close(fd) != 0 && !error)
        error = failure("close", temporary);
    if (!error && ::rename(temporary.c_str(), target.c_str()) != 0)
        error = failure("rename", target);
    if (error)
        ::unlink(temporary.c_str());
    return error;
}

std::vector<FsError> NotCopiedList::read(const std::filesystem::path& backupFolder)
{
    std::vector<FsError> items;
    std::ifstream file(pathFor(backupFolder), std::ios::binary);
    std::string line;
    while (std::getline(file, line)) {
        if (line.empty() || line.front() == '#')
            continue;
        if (std::optional<FsError> item = parseLine(line))
            items.push_back(std::move(*item));
    }
    return items;
}

void NotCopiedList::remove(const std::filesystem::path& backupFolder)
{
    ::unlink(pathFor(backupFolder).c_str());
}
