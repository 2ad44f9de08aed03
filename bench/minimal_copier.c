/* The least a copier of big files can do, for comparison only: for each regular file in SRC, a clone
 * attempt, the sequential hint and copy_file_range in ranges of 1 GiB into DST, nothing else (no modes,
 * times, attributes, links or subfolders). "thread" runs the copy on a second thread, as the program does.
 *
 *     minimal_copier main|thread SRC DST      prints copy_ms=... on stderr
 */
#define _GNU_SOURCE
#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

static const char* source;
static const char* destination;
static int failed;

static void copy_file(const char* from, const char* to)
{
    int in = open(from, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    int out = open(to, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (in < 0 || out < 0) {
        failed = 1;
    } else if (ioctl(out, FICLONE, in) != 0) {
        posix_fadvise(in, 0, 0, POSIX_FADV_SEQUENTIAL);
        ssize_t copied;
        while ((copied = copy_file_range(in, NULL, out, NULL, (size_t)1 << 30, 0)) > 0) {
        }
        if (copied < 0)
            failed = 1;
    }
    if (in >= 0)
        close(in);
    if (out >= 0)
        close(out);
}

static void* copy_folder(void* unused)
{
    (void)unused;
    DIR* folder = opendir(source);
    if (!folder || mkdir(destination, 0755) != 0) {
        failed = 1;
        return NULL;
    }
    struct dirent* entry;
    char from[4096], to[4096];
    while ((entry = readdir(folder))) {
        if (entry->d_type != DT_REG)
            continue;
        snprintf(from, sizeof from, "%s/%s", source, entry->d_name);
        snprintf(to, sizeof to, "%s/%s", destination, entry->d_name);
        copy_file(from, to);
    }
    closedir(folder);
    return NULL;
}

int main(int argc, char** argv)
{
    if (argc != 4 || (strcmp(argv[1], "main") != 0 && strcmp(argv[1], "thread") != 0)) {
        fprintf(stderr, "usage: minimal_copier main|thread SRC DST\n");
        return 2;
    }
    source = argv[2];
    destination = argv[3];
    struct timespec started, ended;
    clock_gettime(CLOCK_MONOTONIC, &started);
    if (strcmp(argv[1], "thread") == 0) {
        pthread_t worker;
        pthread_create(&worker, NULL, copy_folder, NULL);
        pthread_join(worker, NULL);
    } else {
        copy_folder(NULL);
    }
    clock_gettime(CLOCK_MONOTONIC, &ended);
    fprintf(stderr, "copy_ms=%.1f\n",
            (ended.tv_sec - started.tv_sec) * 1e3 + (ended.tv_nsec - started.tv_nsec) / 1e6);
    return failed;
}
