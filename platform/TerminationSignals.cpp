#include "TerminationSignals.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <QSocketNotifier>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int signalPipe[2] = {-1, -1};

void onSignal(int signalNumber)
{
    const int savedErrno = errno;
    const char byte = static_cast<char>(signalNumber);
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
    errno = savedErrno;
}

} // namespace

TerminationSignals::TerminationSignals(QObject* parent)
    : QObject(parent)
{
}

TerminationSignals::~TerminationSignals()
{
    if (m_notifier) {
        ::signal(SIGTERM, SIG_DFL);
        ::signal(SIGINT, SIG_DFL);
    }
}

bool TerminationSignals::install()
{
    if (signalPipe[0] < 0 && ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, signalPipe) != 0)
        return false;
    ::fcntl(signalPipe[1], F_SETFL, O_NONBLOCK);
    m_notifier = std::make_unique<QSocketNotifier>(signalPipe[0], QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, [this] { readSignal(); });
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    return ::sigaction(SIGTERM, &action, nullptr) == 0 && ::sigaction(SIGINT, &action, nullptr) == 0;
}

void TerminationSignals::readSignal()
{
    char byte = 0;
    if (::read(signalPipe[0], &byte, 1) == 1)
        emit terminationRequested(static_cast<unsigned char>(byte));
}
