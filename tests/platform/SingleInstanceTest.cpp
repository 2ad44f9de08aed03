#include "platform/SingleInstance.h"

#include "support/EventLoop.h"
#include "support/SecondStart.h"
#include "support/TestHome.h"
#include "support/TreeBuilder.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <future>
#include <gtest/gtest.h>
#include <QSignalSpy>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace fs = std::filesystem;
using Claim = SingleInstance::Claim;
using namespace std::chrono_literals;

namespace {

constexpr uid_t kOtherUser = 65534;
constexpr int kBoundMs = 5000;

QString qPath(const fs::path& path)
{
    return QString::fromStdString(path.string());
}

fs::path fsPath(const QString& path)
{
    return fs::path(path.toStdString());
}

sockaddr_un addressOf(const fs::path& socketPath)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
    return address;
}

struct stat statusOf(const fs::path& path)
{
    struct stat status {};
    ::lstat(path.c_str(), &status);
    return status;
}

// What a program that crashed leaves behind: a socket file that nobody listens on.
void leaveStaleSocketAt(const fs::path& socketPath)
{
    const sockaddr_un address = addressOf(socketPath);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
        << std::strerror(errno);
    ASSERT_EQ(::listen(fd, 1), 0);
    ::close(fd);
}

// A socket of user 65534 at `socketPath`, as another user's program would have it: the file is that user's,
// and so is the process that listens, whose credentials a connecting program sees. Nobody accepts: what
// is sent to it waits in the backlog, where sent() reads it.
struct OtherUsersListener {
    explicit OtherUsersListener(const fs::path& socketPath)
    {
        const sockaddr_un address = addressOf(socketPath);
        ready = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                ::lchown(socketPath.c_str(), kOtherUser, kOtherUser) == 0 &&
                TreeBuilder::runUnprivileged([this] { return ::listen(fd, 8) == 0 ? "listens" : ""; }) ==
                    "listens";
    }
    ~OtherUsersListener() { ::close(fd); }
    std::string sent() const
    {
        std::string received;
        for (int connection; (connection = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            char buffer[256];
            for (ssize_t got; (got = ::recv(connection, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;)
                received.append(buffer, static_cast<std::size_t>(got));
            ::close(connection);
        }
        return received;
    }

    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    bool ready = false;
};

// Asks the program at `socketPath` to reopen from a process of user 65534, while this thread's event loop
// lets the program answer; what came back, or nothing when the process could not run.
std::optional<std::string> askToReopenAsAnotherUser(const fs::path& socketPath)
{
    auto asked = std::async(std::launch::async, [address = addressOf(socketPath)] {
        return TreeBuilder::runUnprivileged([&address] {
            const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            const timeval bound{kBoundMs / 1000, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
            if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
                return std::string("no connection");
            // The program may have dropped the connection already: that is the answer, not a failure.
            [[maybe_unused]] const ssize_t sent = ::send(fd, "reopen\n", 7, MSG_NOSIGNAL);
            std::string answer;
            char buffer[64];
            for (ssize_t got; (got = ::read(fd, buffer, sizeof buffer)) > 0;)
                answer.append(buffer, static_cast<std::size_t>(got));
            return answer;
        });
    });
    EXPECT_TRUE(
        runEventLoopUntil([&] { return asked.wait_for(0s) == std::future_status::ready; }, 2 * kBoundMs));
    return asked.get();
}

class SingleInstanceTest : public ::testing::Test {
protected:
    fs::path folder(const char* name) const
    {
        const fs::path made = home.path() / name;
        fs::create_directories(made);
        return made;
    }
    fs::path privateFolder(const char* name) const
    {
        const fs::path made = folder(name);
        fs::permissions(made, fs::perms::owner_all, fs::perm_options::replace);
        return made;
    }
    QString lockFile() const { return qPath(home.configHome() / "Pelmora" / "Pelmora.instance.lock"); }
    SingleInstance::Places places() const
    {
        return {lockFile(), qPath(privateFolder("run")), qPath(folder("tmp"))};
    }
    fs::path namedFolder() const { return home.path() / "tmp" / ("pelmora-" + std::to_string(::geteuid())); }

    // Where a program on these places answers; the file goes when the program does.
    fs::path socketPathOfAFirstRun() const
    {
        SingleInstance first(places());
        EXPECT_EQ(first.claim(), Claim::Launch);
        const fs::path socketPath = fsPath(first.socketPath());
        EXPECT_TRUE(S_ISSOCK(statusOf(socketPath).st_mode));
        return socketPath;
    }

    TestHome home;
};

// The lock, not the socket's folder, decides who runs: a start with another TMPDIR and no runtime folder
// still finds the first through the lock file.
TEST_F(SingleInstanceTest, ASecondStartOnTheSamePreferencesHandsOverToTheFirstWhichReopens)
{
    SingleInstance first(places());
    QSignalSpy reopen(&first, &SingleInstance::reopenRequested);
    ASSERT_EQ(first.claim(), Claim::Launch);
    EXPECT_EQ(fsPath(first.socketPath()).parent_path(), home.path() / "run");

    EXPECT_EQ(claimAsASecondStart(places()), Claim::HandedOver);
    EXPECT_EQ(claimAsASecondStart({lockFile(), QString(), qPath(folder("tmp-b"))}), Claim::HandedOver);
    EXPECT_EQ(reopen.count(), 2);
    EXPECT_TRUE(fs::is_empty(home.path() / "tmp-b")) << "a start that hands over makes nothing";

    SingleInstance other({lockFile() + "-other", qPath(privateFolder("run")), qPath(folder("tmp"))});
    EXPECT_EQ(other.claim(), Claim::Launch) << "other preferences are another program's";
    EXPECT_NE(other.socketPath(), first.socketPath());
}

TEST_F(SingleInstanceTest, TheLockAndTheSocketGoWithTheProgramAndAStaleSocketIsReplaced)
{
    const fs::path socketPath = socketPathOfAFirstRun();
    EXPECT_FALSE(fs::exists(fs::symlink_status(socketPath)));
    leaveStaleSocketAt(socketPath);

    SingleInstance instance(places());
    EXPECT_EQ(instance.claim(), Claim::Launch);
    EXPECT_EQ(fsPath(instance.socketPath()), socketPath);
    EXPECT_EQ(claimAsASecondStart(places()), Claim::HandedOver);
}

TEST_F(SingleInstanceTest, ARuntimeFolderOthersCouldUseIsPassedOverForANamedFolderOfOurs)
{
    const fs::path open = folder("run-open");
    fs::permissions(open, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                              fs::perms::others_read | fs::perms::others_exec);
    fs::create_directory_symlink(privateFolder("run-real"), home.path() / "run-link");
    for (const fs::path& runtime : {open, home.path() / "run-link", fs::path()}) {
        SCOPED_TRACE(runtime);
        SingleInstance instance({lockFile(), qPath(runtime), qPath(folder("tmp"))});
        ASSERT_EQ(instance.claim(), Claim::Launch);
        EXPECT_TRUE(instance.isAnswering());
        EXPECT_EQ(fsPath(instance.socketPath()).parent_path(), namedFolder());
        EXPECT_EQ(statusOf(namedFolder()).st_mode & 07777, 0700u);
    }
    EXPECT_TRUE(fs::is_empty(home.path() / "run-real"));
}

TEST_F(SingleInstanceTest, ANamedFolderThatIsNotOursAloneGivesWayToAFreshOne)
{
    folder("tmp");
    std::vector<std::pair<const char*, std::function<void()>>> cases = {
        {"open to others", [&] { ASSERT_EQ(::mkdir(namedFolder().c_str(), 0755), 0); }},
        {"a link", [&] { fs::create_directory_symlink(privateFolder("elsewhere"), namedFolder()); }},
    };
    if (::geteuid() == 0)
        cases.emplace_back("another user's", [&] {
            ASSERT_EQ(::mkdir(namedFolder().c_str(), 0700), 0);
            ASSERT_EQ(::chown(namedFolder().c_str(), kOtherUser, kOtherUser), 0);
        });
    for (const auto& [what, prepare] : cases) {
        SCOPED_TRACE(what);
        fs::remove(namedFolder());
        prepare();
        const struct stat before = statusOf(namedFolder());
        fs::path fresh;
        {
            SingleInstance instance({lockFile(), QString(), qPath(folder("tmp"))});
            ASSERT_EQ(instance.claim(), Claim::Launch);
            EXPECT_TRUE(instance.isAnswering());
            fresh = fsPath(instance.socketPath()).parent_path();
            EXPECT_EQ(fresh.parent_path(), home.path() / "tmp");
            EXPECT_TRUE(fresh.filename().string().starts_with(namedFolder().filename().string() + "-"));
            EXPECT_EQ(statusOf(fresh).st_mode & 07777, 0700u);
        }
        EXPECT_FALSE(fs::exists(fresh)) << "the fresh folder goes with the program";
        EXPECT_EQ(statusOf(namedFolder()).st_mode, before.st_mode) << "the named folder is left alone";
        EXPECT_EQ(statusOf(namedFolder()).st_uid, before.st_uid);
    }
}

TEST_F(SingleInstanceTest, AnotherUsersSocketNeitherStopsALaunchNorHearsFromUs)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "a process of another user can only be made by root";
    const fs::path socketPath = socketPathOfAFirstRun();
    const OtherUsersListener other(socketPath);
    ASSERT_TRUE(other.ready);

    SingleInstance instance(places());
    EXPECT_EQ(instance.claim(), Claim::Launch);
    EXPECT_FALSE(instance.isAnswering()) << "the other user's socket is left where it is";
    EXPECT_EQ(statusOf(socketPath).st_uid, kOtherUser);
    EXPECT_TRUE(S_ISSOCK(statusOf(socketPath).st_mode));

    // A later start finds the lock taken and the other user's server where ours would be.
    EXPECT_EQ(claimAsASecondStart(places(), 0), Claim::AlreadyRunning);
    EXPECT_EQ(other.sent(), "") << "the other user's program was told nothing";
}

TEST_F(SingleInstanceTest, TheRunningProgramIgnoresAnotherUsersRequest)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "a process of another user can only be made by root";
    SingleInstance first(places());
    QSignalSpy reopen(&first, &SingleInstance::reopenRequested);
    ASSERT_EQ(first.claim(), Claim::Launch);
    // Everything opened up, as if the folder and the socket's modes had gone wrong: only the user check is
    // left.
    for (const fs::path& path : {home.path(), home.path() / "run"})
        ::chmod(path.c_str(), 0711);
    ::chmod(first.socketPath().toLocal8Bit().constData(), 0777);

    EXPECT_EQ(askToReopenAsAnotherUser(fsPath(first.socketPath())), std::string()) << "no acknowledgement";
    EXPECT_EQ(reopen.count(), 0);
    EXPECT_EQ(claimAsASecondStart(places()), Claim::HandedOver) << "its own user is still answered";
    EXPECT_EQ(reopen.count(), 1);
}

} // namespace
