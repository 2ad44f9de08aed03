#include "Bookmark.h"

#include <cstdint>
#include <cstring>
#include <sys/stat.h>

namespace {

constexpr char kMagic[] = "PLMBKMK1";
constexpr std::size_t kMagicSize = sizeof(kMagic) - 1;
constexpr std::size_t kHeaderSize = kMagicSize + 2 * sizeof(std::uint64_t);

void appendNumber(std::string& out, std::uint64_t value)
{
    for (int i = 0; i < 8; ++i)
        out.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
}

std::uint64_t readNumber(const std::string& in, std::size_t offset)
{
    std::uint64_t value = 0;
    for (int i = 0; i < 8; ++i)
        value |= static_cast<std::uint64_t>(static_cast<unsigned char>(in[offset + i])) << (8 * i);
    return value;
}

std::optional<struct stat> folderStatus(const std::filesystem::path& folder)
{
    struct stat st {};
    if (::stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        return std::nullopt;
    return st;
}

} // namespace

std::optional<std::string> Bookmark::create(const std::filesystem::path& folder)
{
    std::optional<struct stat> st = folderStatus(folder);
    if (!st || !folder.is_absolute())
        return std::nullopt;
    std::string data(kMagic, kMagicSize);
    appendNumber(data, static_cast<std::uint64_t>(st->st_dev));
    appendNumber(data, static_cast<std::uint64_t>(st->st_ino));
    data += folder.native();
    return data;
}

std::optional<std::filesystem::path> Bookmark::resolve(const std::string& data)
{
    if (data.size() <= kHeaderSize || data.compare(0, kMagicSize, kMagic) != 0)
        return std::nullopt;
    const std::uint64_t device = readNumber(data, kMagicSize);
    const std::uint64_t inode = readNumber(data, kMagicSize + 8);
    std::filesystem::path folder = data.substr(kHeaderSize);
    if (folder.native().find('\0') != std::string::npos || !folder.is_absolute())
        return std::nullopt;
    std::optional<struct stat> st = folderStatus(folder);
    if (!st || static_cast<std::uint64_t>(st->st_dev) != device ||
        static_cast<std::uint64_t>(st->st_ino) != inode)
        return std::nullopt;
    return folder;
}
