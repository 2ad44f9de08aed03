// Exposes the engine to the benchmark scripts under bench/: one sub-command per operation.
#include "Helpers/DirectoryUtility.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <sys/resource.h>

namespace {

int usage()
{
    std::fprintf(stderr, "usage: pelmora-bench measure DIR\n"
                         "  PELMORA_BENCH_RSS=1 also prints the peak resident memory (kB) on stderr\n");
    return 2;
}

void reportPeakMemory()
{
    const char* wanted = std::getenv("PELMORA_BENCH_RSS");
    if (!wanted || std::strcmp(wanted, "1") != 0)
        return;
    struct rusage usage {};
    ::getrusage(RUSAGE_SELF, &usage);
    std::fprintf(stderr, "MaxRSSkB=%ld\n", usage.ru_maxrss);
}

int measure(const char* folder)
{
    const FolderMeasure result = DirectoryUtility::sizeForDirectoryAtPath(folder);
    std::printf("TotalSize=%llu TotalFilesCount=%d\n", static_cast<unsigned long long>(result.totalSize),
                result.totalFilesCount);
    return 0;
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc == 3 && std::strcmp(argv[1], "measure") == 0) {
        const int status = measure(argv[2]);
        reportPeakMemory();
        return status;
    }
    return usage();
}
