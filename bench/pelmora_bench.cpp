// Exposes the engine to the benchmark scripts under bench/: one sub-command per operation.
#include "engine/DirectoryCopier.h"
#include "engine/PreviousBackup.h"
#include "engine/RestorePreparation.h"
#include "Helpers/DirectoryUtility.h"
#include "Helpers/ParallelWalk.h"
#include "operations/ProgressRelay.h"
#include "operations/RestoreOperation.h"
#include "platform/EventStream.h"
#include "platform/FreedesktopFileManager.h"
#include "platform/MessageBoxAlertPresenter.h"
#include "platform/PosixPasswordDatabase.h"
#include "platform/ProcRunningApplications.h"
#include "platform/QtFolderChooser.h"
#include "platform/UserDefaults.h"
#include "store/BackupRoot.h"
#include "store/iCloudPrefs.h"
#include "ui/main/MainWindowController.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>
#include <QThreadPool>
#include <QTimer>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace {

int usage()
{
    std::fprintf(stderr, "usage: pelmora-bench measure DIR\n"
                         "       pelmora-bench watch DIR [LATENCY_SECONDS]\n"
                         "       pelmora-bench ui-latency DIR [ROUNDS]\n"
                         "       pelmora-bench copy SRC DST [PREVIOUS_BACKUP]\n"
                         "       pelmora-bench restore LIVE BACKUP\n"
                         "  PELMORA_BENCH_RSS=1 also prints memory figures (kB) on stderr\n");
    return 2;
}

bool memoryWanted()
{
    const char* wanted = std::getenv("PELMORA_BENCH_RSS");
    return wanted && std::strcmp(wanted, "1") == 0;
}

void reportPeakMemory()
{
    if (!memoryWanted())
        return;
    struct rusage usage {};
    ::getrusage(RUSAGE_SELF, &usage);
    std::fprintf(stderr, "MaxRSSkB=%ld\n", usage.ru_maxrss);
}

long residentKilobytes()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLong();
    }
    return -1;
}

int measure(const char* folder)
{
    const FolderMeasure result = DirectoryUtility::sizeForDirectoryAtPath(folder);
    std::printf("TotalSize=%llu TotalFilesCount=%d\n", static_cast<unsigned long long>(result.totalSize),
                result.totalFilesCount);
    reportPeakMemory();
    return 0;
}

// Prints "ready" once every watch is in place, then one line per delivered event: id, flags, path.
int watch(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    const QString folder = QFile::decodeName(argv[2]);
    const double latency = argc > 3 ? std::atof(argv[3]) : 3.0;
    auto stream =
        EventStream::create({folder}, EventStream::kSinceNow, latency, [](const QList<StreamEvent>& batch) {
            for (const StreamEvent& event : batch)
                std::printf("%llu 0x%08x %s\n", static_cast<unsigned long long>(event.id), event.flags,
                            event.nativePath.isEmpty() ? QFile::encodeName(event.path).constData()
                                                       : event.nativePath.constData());
            std::fflush(stdout);
        });
    const long before = residentKilobytes();
    stream->scheduleWithThread(QThread::currentThread());
    if (!stream->start()) {
        std::fprintf(stderr, "could not start watching %s\n", argv[2]);
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    if (memoryWanted())
        std::fprintf(stderr, "RSSBeforeStartkB=%ld RSSAfterStartkB=%ld\n%s\n", before, residentKilobytes(),
                     qPrintable(stream->copyDescription()));
    return QCoreApplication::exec();
}

// How late the main thread's event loop runs a 1 ms timer while the main window measures DIR as its
// iCloud folder in the background. Prints the delays' median, 99th percentile and maximum.
int uiLatency(int argc, char* argv[])
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    const int rounds = argc > 3 ? std::max(1, std::atoi(argv[3])) : 10;
    QTemporaryDir settings;
    UserDefaults defaults(settings.filePath(QStringLiteral("Pelmora.json")));
    iCloudPrefs::registerDefaults(defaults);
    ProcRunningApplications runningApplications;
    MessageBoxAlertPresenter alerts;
    QtFolderChooser chooser;
    PosixPasswordDatabase passwords;
    FreedesktopFileManager fileManager;
    MainWindowController controller(
        {defaults, runningApplications, alerts, chooser, passwords, fileManager, [] { return false; },
         [] { return std::optional<QString>(QDir::homePath()); }, [](const QString&) {}});
    controller.showWindow();
    controller.setMobileDocumentsDirectory(QFile::decodeName(argv[2]));

    std::vector<double> delays;
    QElapsedTimer measuring;
    qint64 measuredNs = 0;
    QElapsedTimer clock;
    clock.start();
    qint64 expected = 0;
    QTimer ticker;
    ticker.setTimerType(Qt::PreciseTimer);
    QObject::connect(&ticker, &QTimer::timeout, [&] {
        const qint64 now = clock.nsecsElapsed();
        if (expected)
            delays.push_back(static_cast<double>(std::max<qint64>(0, now - expected)) / 1e6);
        expected = now + 1000000;
    });
    int round = 0;
    bool roundRunning = false;
    auto startRound = [&] {
        QTimer::singleShot(0, [&] {
            roundRunning = true;
            measuring.start();
            controller.setiCloudSize();
        });
    };
    QObject::connect(&controller, &MainWindowController::iCloudSizeChanged, [&] {
        if (!roundRunning)
            return; // the window's own first measure
        roundRunning = false;
        measuredNs += measuring.nsecsElapsed();
        if (++round < rounds)
            startRound();
        else
            QCoreApplication::quit();
    });
    // The window's own first measure may still run: the rounds start once it is over.
    QTimer::singleShot(0, [&] {
        if (controller.isCalculatingiCloudSizeInProgress())
            QObject::connect(&controller, &MainWindowController::iCloudSizeChanged, &controller, startRound,
                             Qt::SingleShotConnection);
        else
            startRound();
    });
    ticker.start(1);
    QApplication::exec();

    std::sort(delays.begin(), delays.end());
    auto percentile = [&](double p) {
        return delays.empty() ? 0.0
                              : delays[static_cast<std::size_t>(p * static_cast<double>(delays.size() - 1))];
    };
    std::printf(
        "rounds=%d measure_ms=%.1f samples=%zu delay_p50_ms=%.3f delay_p99_ms=%.3f delay_max_ms=%.3f\n",
        rounds, static_cast<double>(measuredNs) / 1e6 / rounds, delays.size(), percentile(0.5),
        percentile(0.99), delays.empty() ? 0.0 : delays.back());
    return 0;
}

// A copy run as the window runs it: the copier on a worker thread, the update for each copied file
// handed through the window's relay to the main thread, where the file is looked up and its size added.
class WindowedCopy {
public:
    explicit WindowedCopy(QObject* context)
        : m_progress(ProgressRelay::create(context, [this](const std::filesystem::path& copiedSource) {
            struct stat status {};
            if (::lstat(copiedSource.c_str(), &status) == 0)
                bytes += static_cast<std::uint64_t>(status.st_size);
            ++files;
        }))
    {
    }

    // On a worker thread. The main thread then applies the updates still waiting and leaves its loop.
    CopyOutcome runThenQuit(const std::filesystem::path& source, const std::filesystem::path& destination,
                            const std::atomic<bool>& cancel, const std::filesystem::path& previousBackup)
    {
        std::optional<PreviousBackup> previous;
        if (!previousBackup.empty())
            previous.emplace(previousBackup);
        CopyOutcome outcome = DirectoryCopier::copyDirectoryAtPath(
            source, destination, cancel,
            [this](const std::filesystem::path& copiedSource) { m_progress->post(copiedSource); }, nullptr,
            previous ? &*previous : nullptr);
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [this] {
                m_progress->flush();
                QCoreApplication::quit();
            },
            Qt::QueuedConnection);
        return outcome;
    }

    std::uint64_t files = 0;
    std::uint64_t bytes = 0;

private:
    std::shared_ptr<ProgressRelay> m_progress;
};

// Copies SRC into DST the way a backup runs: the walk on a worker thread, its progress handed to the main
// thread's event loop through the window's relay, where each copied file is looked up and its size added.
// Given a previous backup, files it holds unchanged are linked to, as a second backup does.
int copy(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    const std::filesystem::path source(argv[2]);
    const std::filesystem::path destination(argv[3]);
    const std::filesystem::path previousBackup(argc > 4 ? argv[4] : "");
    std::atomic<bool> cancelRequested{false};
    WindowedCopy copying(&application);
    CopyOutcome outcome;
    using Clock = std::chrono::steady_clock;
    const Clock::time_point started = Clock::now();
    std::thread worker(
        [&] { outcome = copying.runThenQuit(source, destination, cancelRequested, previousBackup); });
    QCoreApplication::exec();
    const Clock::time_point ended = Clock::now();
    worker.join();
    // The scripts read the first three figures in this order.
    std::printf("copied=%llu bytes=%llu result=%s not_copied=%zu\n",
                static_cast<unsigned long long>(copying.files),
                static_cast<unsigned long long>(copying.bytes), outcome.finished() ? "true" : "false",
                outcome.notCopied.size());
    // The program is already running when a backup starts: this is the backup's own time, without the
    // start of this process.
    std::fprintf(stderr, "copy_ms=%.1f\n",
                 std::chrono::duration<double, std::milli>(ended - started).count());
    reportPeakMemory();
    return 0;
}

// Makes LIVE match BACKUP the way the window's restore runs, without the window: the same run object,
// with the pruning moved to the Trash of $XDG_DATA_HOME and the copy's progress added up on the main loop.
// The count goes to stderr, so that a caller can hold it against what was copied.
int restore(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    const std::filesystem::path live(argv[2]);
    const std::filesystem::path backup(argv[3]);
    RestoreOperation run(backup, live, QFile::encodeName(BackupRoot::applicationDataFolder()).toStdString());
    using Clock = std::chrono::steady_clock;
    const Clock::time_point started = Clock::now();
    Clock::time_point prepared = started;
    Clock::time_point ended = started;
    QObject::connect(&run, &CopyOperation::copyingStarted, &application, [&] { prepared = Clock::now(); });
    QObject::connect(&run, &CopyOperation::ended, &application, [&] {
        ended = Clock::now();
        QCoreApplication::quit();
    });
    run.start();
    QCoreApplication::exec();
    const bool everything = run.ending() == RestoreOperation::Ending::Restored && run.didEverything();
    std::printf(
        "pruned_then_copied=%d bytes=%llu result=%s not_copied=%zu trashed=%lld kept=%zu not_removed=%zu "
        "removed_for_good=%zu\n",
        run.currentCountOfCopiedItems(), static_cast<unsigned long long>(run.currentSizeOfCopiedItems()),
        everything ? "true" : "false", run.notCopied().size(), static_cast<long long>(run.pruning().trashed),
        run.pruning().kept.size(), run.pruning().notRemoved.size(), run.pruning().removedForGood.size());
    std::fprintf(stderr, "to_copy=%d to_copy_bytes=%llu\n", run.totalCountOfItemsToCopy(),
                 static_cast<unsigned long long>(run.totalSizeOfItemsToCopy()));
    const auto ms = [](Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); };
    std::fprintf(stderr, "prune_and_count_ms=%.0f copy_ms=%.0f\n", ms(prepared - started),
                 ms(ended - prepared));
    reportPeakMemory();
    return 0;
}

} // namespace

int main(int argc, char* argv[])
{
    // As the program does: the parallel walks share the pool.
    ParallelWalk::setStarter(
        [](std::function<void()> task) { return QThreadPool::globalInstance()->tryStart(std::move(task)); });
    if (argc == 3 && std::strcmp(argv[1], "measure") == 0)
        return measure(argv[2]);
    if ((argc == 3 || argc == 4) && std::strcmp(argv[1], "watch") == 0)
        return watch(argc, argv);
    if ((argc == 3 || argc == 4) && std::strcmp(argv[1], "ui-latency") == 0)
        return uiLatency(argc, argv);
    if ((argc == 4 || argc == 5) && std::strcmp(argv[1], "copy") == 0)
        return copy(argc, argv);
    if (argc == 4 && std::strcmp(argv[1], "restore") == 0)
        return restore(argc, argv);
    return usage();
}
