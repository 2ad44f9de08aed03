#include "platform/SingleInstance.h"

#include "platform/UserDefaults.h"
#include "support/EventLoop.h"
#include "support/SecondStart.h"
#include "support/TestHome.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <QFileInfo>
#include <QSignalSpy>
#include <string>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
using Claim = SingleInstance::Claim;

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

bool dropToOtherUser()
{
    return ::setgroups(0, nullptr) == 0 && ::setresgid(kOtherUser, kOtherUser, kOtherUser) == 0 &&
           ::setresuid(kOtherUser, kOtherUser, kOtherUser) == 0;
}

bool isReadable(int fd, int timeoutMs)
{
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, timeoutMs) > 0;
}

// Appends what `connection` sends until it closes or `stop` is readable.
std::size_t readConnection(int connection, int stop, char* into, std::size_t room)
{
    std::size_t length = 0;
    for (;;) {
        pollfd entries[2] = {{connection, POLLIN, 0}, {stop, POLLIN, 0}};
        if (::poll(entries, 2, -1) < 0 || entries[1].revents != 0)
            return length;
        const ssize_t got = ::read(connection, into + length, room - length);
        if (got <= 0 || static_cast<std::size_t>(got) == room - length)
            return length + (got > 0 ? static_cast<std::size_t>(got) : 0);
        length += static_cast<std::size_t>(got);
    }
}

// A second process of user 65534, made by fork. Between fork and exit the child makes system calls only,
// as the child of a process with threads must. It reports 'R' once ready, then, when it ends, what it
// was sent or answered.
class OtherUsersProcess {
public:
    enum class Role {
        // Root puts the socket where only root could (our own folder), hands the file to the other user
        // and listens as that user: what a listener of another user at our path looks like.
        ListenAtOurPath,
        // Connects as the other user and asks for a reopen.
        AskToReopen,
    };

    OtherUsersProcess(Role role, const fs::path& socketPath)
    {
        const sockaddr_un address = addressOf(socketPath);
        int report[2];
        int stop[2];
        if (::pipe2(report, O_CLOEXEC) != 0 || ::pipe2(stop, O_CLOEXEC) != 0)
            return;
        m_child = ::fork();
        if (m_child == 0) {
            ::close(report[0]);
            ::close(stop[1]);
            role == Role::ListenAtOurPath ? listen(address, report[1], stop[0]) : ask(address, report[1]);
        }
        ::close(report[1]);
        ::close(stop[0]);
        m_fromChild = report[0];
        m_toChild = stop[1];
    }

    ~OtherUsersProcess()
    {
        if (m_child > 0) {
            ::kill(m_child, SIGKILL);
            ::waitpid(m_child, nullptr, 0);
        }
        ::close(m_fromChild);
        ::close(m_toChild);
    }

    bool waitUntilReady()
    {
        char byte = 0;
        return m_child > 0 && isReadable(m_fromChild, kBoundMs) && ::read(m_fromChild, &byte, 1) == 1 &&
               byte == 'R';
    }

    bool hasReported() const { return isReadable(m_fromChild, 0); }

    // Tells a listener to stop, then reads what the child reports; nothing when it failed or hung.
    std::optional<std::string> finish()
    {
        ::close(m_toChild);
        m_toChild = -1;
        std::string reported;
        char buffer[256];
        ssize_t got = 0;
        while (isReadable(m_fromChild, kBoundMs) && (got = ::read(m_fromChild, buffer, sizeof buffer)) > 0)
            reported.append(buffer, static_cast<std::size_t>(got));
        int status = 0;
        const bool ended = got == 0 && ::waitpid(m_child, &status, 0) == m_child;
        m_child = ended ? -1 : m_child;
        if (!ended || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
            return std::nullopt;
        return reported;
    }

private:
    [[noreturn]] static void listen(const sockaddr_un& address, int report, int stop)
    {
        const int server = ::socket(AF_UNIX, SOCK_STREAM, 0);
        if (server < 0 || ::bind(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            ::lchown(address.sun_path, kOtherUser, kOtherUser) != 0 || !dropToOtherUser() ||
            ::listen(server, 8) != 0)
            ::_exit(3);
        if (::write(report, "R", 1) != 1)
            ::_exit(4);
        char received[256];
        std::size_t length = 0;
        for (;;) {
            pollfd entries[2] = {{server, POLLIN, 0}, {stop, POLLIN, 0}};
            if (::poll(entries, 2, -1) < 0 || entries[1].revents != 0)
                break;
            const int connection = ::accept(server, nullptr, nullptr);
            if (connection >= 0)
                length += readConnection(connection, stop, received + length, sizeof received - length);
            ::close(connection);
        }
        ::_exit(::write(report, received, length) == static_cast<ssize_t>(length) ? 0 : 4);
    }

    [[noreturn]] static void ask(const sockaddr_un& address, int report)
    {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        if (!dropToOtherUser() || fd < 0 ||
            ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            ::_exit(3);
        if (::write(report, "R", 1) != 1)
            ::_exit(4);
        // The program may have dropped the connection already: that is the answer, not a failure.
        [[maybe_unused]] const ssize_t sent = ::send(fd, "reopen\n", 7, MSG_NOSIGNAL);
        char answer[64];
        ssize_t got = 0;
        std::size_t length = 0;
        while (length < sizeof answer && (got = ::read(fd, answer + length, sizeof answer - length)) > 0)
            length += static_cast<std::size_t>(got);
        ::_exit(::write(report, answer, length) == static_cast<ssize_t>(length) ? 0 : 4);
    }

    pid_t m_child = -1;
    int m_fromChild = -1;
    int m_toChild = -1;
};

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

TEST_F(SingleInstanceTest, ASecondStartHandsOverToTheFirstWhichReopens)
{
    SingleInstance first(places());
    QSignalSpy reopen(&first, &SingleInstance::reopenRequested);
    ASSERT_EQ(first.claim(), Claim::Launch);
    EXPECT_TRUE(first.isAnswering());
    EXPECT_EQ(fsPath(first.socketPath()).parent_path(), home.path() / "run");

    EXPECT_EQ(claimAsASecondStart(places()), Claim::HandedOver);
    EXPECT_EQ(reopen.count(), 1);
    EXPECT_EQ(claimAsASecondStart(places()), Claim::HandedOver);
    EXPECT_EQ(reopen.count(), 2);
}

TEST_F(SingleInstanceTest, TheLockNotTheSocketFolderDecidesWhoRuns)
{
    SingleInstance first({lockFile(), qPath(privateFolder("run-a")), qPath(folder("tmp-a"))});
    QSignalSpy reopen(&first, &SingleInstance::reopenRequested);
    ASSERT_EQ(first.claim(), Claim::Launch);

    // Another shell on the same preferences: no runtime folder, another TMPDIR.
    EXPECT_EQ(claimAsASecondStart({lockFile(), QString(), qPath(folder("tmp-b"))}), Claim::HandedOver);
    EXPECT_EQ(reopen.count(), 1);
    EXPECT_TRUE(fs::is_empty(home.path() / "tmp-b")) << "a start that hands over makes nothing";

    // Other preferences are another program's.
    SingleInstance other({lockFile() + "-other", qPath(privateFolder("run-a")), qPath(folder("tmp-a"))});
    EXPECT_EQ(other.claim(), Claim::Launch);
    EXPECT_NE(other.socketPath(), first.socketPath());
}

// QSettings locks "<file>.lock" around every save, and would wait forever on ours.
TEST_F(SingleInstanceTest, TheLockLiesBesideThePreferencesUnderANameOfItsOwn)
{
    const QString preferences = UserDefaults::standardFilePath();
    const QString lock = SingleInstance::standardPlaces().lockFile;
    EXPECT_EQ(QFileInfo(lock).path(), QFileInfo(preferences).path());
    EXPECT_NE(lock, preferences + ".lock");
    EXPECT_NE(lock, preferences);
}

TEST_F(SingleInstanceTest, AHolderThatDoesNotAnswerRefusesTheSecondStartUntilItEnds)
{
    SingleInstance(places()).claim(); // makes the lock file's folder
    const int holder = ::open(lockFile().toLocal8Bit().constData(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(::flock(holder, LOCK_EX | LOCK_NB), 0);

    SingleInstance second(places());
    second.setHandOverPatience(0);
    EXPECT_EQ(second.claim(), Claim::AlreadyRunning);
    EXPECT_FALSE(second.isAnswering());
    EXPECT_TRUE(second.alreadyRunningMessage().contains(lockFile()));
    EXPECT_FALSE(second.alreadyRunningMessage().contains(QLatin1Char('\n')));

    ::close(holder);
    EXPECT_EQ(SingleInstance(places()).claim(), Claim::Launch);
}

TEST_F(SingleInstanceTest, TheLockAndTheSocketGoWithTheProgram)
{
    const fs::path socketPath = socketPathOfAFirstRun();
    EXPECT_FALSE(fs::exists(fs::symlink_status(socketPath)));

    SingleInstance next(places());
    EXPECT_EQ(next.claim(), Claim::Launch);
    EXPECT_TRUE(next.isAnswering());
}

TEST_F(SingleInstanceTest, AStaleSocketIsReplacedAndTheLaunchAnswersOnIt)
{
    const fs::path socketPath = socketPathOfAFirstRun();
    leaveStaleSocketAt(socketPath);
    ASSERT_TRUE(S_ISSOCK(statusOf(socketPath).st_mode));

    SingleInstance instance(places());
    EXPECT_EQ(instance.claim(), Claim::Launch);
    EXPECT_TRUE(instance.isAnswering());
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
            EXPECT_EQ(claimAsASecondStart({lockFile(), QString(), qPath(folder("tmp-b"))}), Claim::HandedOver)
                << "found through the lock file";
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
    OtherUsersProcess other(OtherUsersProcess::Role::ListenAtOurPath, socketPath);
    ASSERT_TRUE(other.waitUntilReady());
    ASSERT_EQ(statusOf(socketPath).st_uid, kOtherUser);

    SingleInstance instance(places());
    EXPECT_EQ(instance.claim(), Claim::Launch);
    EXPECT_FALSE(instance.isAnswering()) << "the other user's socket is left where it is";
    EXPECT_EQ(statusOf(socketPath).st_uid, kOtherUser);
    EXPECT_TRUE(S_ISSOCK(statusOf(socketPath).st_mode));

    // A later start finds the lock taken and the other user's server where ours would be.
    EXPECT_EQ(claimAsASecondStart(places(), 0), Claim::AlreadyRunning);
    EXPECT_EQ(other.finish(), std::string()) << "the other user's program was told nothing";
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

    OtherUsersProcess other(OtherUsersProcess::Role::AskToReopen, fsPath(first.socketPath()));
    ASSERT_TRUE(other.waitUntilReady());
    ASSERT_TRUE(runEventLoopUntil([&] { return other.hasReported(); }));
    EXPECT_EQ(other.finish(), std::string()) << "no acknowledgement";
    EXPECT_EQ(reopen.count(), 0);

    EXPECT_EQ(claimAsASecondStart(places()), Claim::HandedOver) << "its own user is still answered";
    EXPECT_EQ(reopen.count(), 1);
}

} // namespace
