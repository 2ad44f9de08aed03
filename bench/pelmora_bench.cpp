// Exposes the engine to the benchmark scripts under bench/: one sub-command per operation.
#include "Helpers/DirectoryUtility.h"
#include "platform/EventStream.h"

#include <QCoreApplication>
#include <QFile>
#include <QThread>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/resource.h>

namespace {

int usage()
{
    std::fprintf(stderr, "usage: pelmora-bench measure DIR\n"
                         "       pelmora-bench watch DIR [LATENCY_SECONDS]\n"
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
    auto stream = EventStream::create({folder}, EventStream::kSinceNow, latency, [](const QList<StreamEvent>& batch) {
        for (const StreamEvent& event : batch)
            std::printf("%llu 0x%08x %s\n", static_cast<unsigned long long>(event.id), event.flags,
                        QFile::encodeName(event.path).constData());
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

} // namespace

int main(int argc, char* argv[])
{
    if (argc == 3 && std::strcmp(argv[1], "measure") == 0)
        return measure(argv[2]);
    if ((argc == 3 || argc == 4) && std::strcmp(argv[1], "watch") == 0)
        return watch(argc, argv);
    return usage();
}
