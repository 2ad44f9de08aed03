#!/usr/bin/env python3
"""Times the backup copy against cp -a, checks what it copied, and checks its memory.

    copy_bench.py [--rounds N] [--big-rounds N] [--big-file-mb M] [--big-on DIR] [--settle S]
                  [--skip-many] [--skip-big]

Two trees are copied: the generated 100,000-file tree, and a tree of a few multi-gigabyte files made here
once. The machines are shared and small, so the two programs are run alternately, round after round,
and what counts is the median of the per-round ratio (time of pelmora-bench copy / time of cp -a).
Whichever program goes first changes every round.

Both copy from the same source into fresh folders on the same file system. Before each timed run the
source is read once (so it starts from the page cache as far as the machine keeps it), everything is
synced (so that neither program pays for the other's write-back), and as much memory as the copy will
fill is touched and freed again: this virtual machine hands free memory back to its host, and the first
touch of such memory costs more than the copying itself, so without this whichever program ran first
would pay for the other. (Touching all free memory instead takes minutes per copy here and spread the
times no less.) Even so, single copies of the big files spread from under one second to several
(the copy is held back while the host's disk takes the write-back, and the host's own load varies). The page cache does not hold still either: this machine's memory manager pages
out file data left unread for a few seconds, so a copy taking longer than that reads part of its source
from disk again, as it would on a user's machine after a while. Single rounds therefore spread widely;
only the median over several rounds means something. --big-on /dev/shm/... puts the big files and their
copies on a tmpfs instead: there both programs copy page cache to page cache and the host's disk has no
say, which leaves what the two programs themselves cost. The root file system here is ext4
without a journal, which will not reuse the inodes of files deleted in the last minute or so: creating
many files right after deleting many is slow for that long. So the copies of the many-file tree are kept
until the round is over, when they are deleted and the script waits --settle seconds before going on.

pelmora-bench copy runs the copier as the program does: on a worker thread, handing an update for every
copied file, through the window's progress relay, to a Qt event loop on the main thread, which looks the
file up and adds its size. Its time is the one it reports, from starting the worker to the last update
applied: the program is running when a backup starts, so loading Qt (about 20 ms here) is not part of a
backup. The ratio with the whole process's wall time is printed as well.

What the copy holds is checked with tools of its own: rsync -anc --itemize-changes (content by checksum,
permissions, times to the second, link targets) must list nothing but the ".DS_Store" items the copier
leaves out on purpose (cp -a copies them, so cp does a little more work than the copier), and a walk of
both trees compares every modification time to the nanosecond. Peak memory is taken on the 100,000-file
tree and on the 10,000-file one: it must not grow with the number of files.
"""

import argparse
import os
import re
import shutil
import stat
import statistics
import subprocess
import sys
import time

import measure_bench as common

WORK_DIR = os.path.join(common.OUT_DIR, "copies")
# Where the big-file tree and its copies go; --big-on moves both to another file system.
BIG_ROOT = common.OUT_DIR
BIG_TREE = os.path.join(BIG_ROOT, "tree-big")
BIG_WORK_DIR = WORK_DIR
BIG_FILES = 3
DEFAULT_BIG_FILE_MB = 1536
MIN_BIG_FILE_MB = 256
SPACE_MARGIN = 4 << 30

TARGET_MANY = 0.9
TARGET_BIG = 1.05
TARGET_SECOND = 0.15
TARGET_NEW_BLOCKS = 0.02
MEMORY_TOLERANCE = 0.10

FIGURES = re.compile(rb"copied=(\d+) bytes=(\d+) result=(true|false)")
COPY_TIME = re.compile(rb"copy_ms=([0-9.]+)")
PEAK = re.compile(rb"MaxRSSkB=(\d+)")
CLUTTER = b".DS_Store"


def pelmora_argv(source, destination, previous=None):
    return [common.BENCH_BINARY, "copy", source, destination] + ([previous] if previous else [])


def cp_argv(source, destination):
    return ["cp", "-a", source, destination]


def tree_bytes(tree):
    total = 0
    for folder, _, files in os.walk(os.fsencode(tree)):
        for name in files:
            total += os.lstat(os.path.join(folder, name)).st_size
    return total


def free_bytes(path):
    stats = os.statvfs(path)
    return stats.f_bavail * stats.f_frsize


def sync():
    subprocess.run(["sync"], check=True)


def warm(tree):
    """Reads every file once, untimed."""
    for folder, _, files in os.walk(os.fsencode(tree)):
        for name in files:
            path = os.path.join(folder, name)
            if os.path.islink(path):
                continue
            try:
                with open(path, "rb", buffering=0) as f:
                    while f.read(1 << 20):
                        pass
            except OSError:
                pass


def prime_memory(size):
    """Touches `size` bytes of memory and frees them again, untimed (see above). Pages just freed are the
    first to be handed out again, so the copy that follows fills these."""
    with open("/proc/meminfo") as meminfo:
        fields = dict(line.split(":", 1) for line in meminfo)
    available = int(fields["MemAvailable"].split()[0]) * 1024
    size = min(size, available - (2 << 30))
    if size <= 0:
        return
    block = bytearray(size)
    block[::4096] = b"\x01" * len(range(0, size, 4096))
    del block


def remove(path):
    subprocess.run(["rm", "-rf", "--", path], check=True)


def fresh_destination(label, work_dir=None):
    work_dir = work_dir or WORK_DIR
    os.makedirs(work_dir, exist_ok=True)
    for index in range(1_000_000):
        path = os.path.join(work_dir, "%s-%d" % (label, index))
        if not os.path.lexists(path):
            return path
    sys.exit("no fresh destination name under %s" % work_dir)


def has_clutter(relative):
    return CLUTTER in relative.split(b"/")


def expected_figures(tree):
    """What the copier must report: every item that is not a folder and not under a ".DS_Store" name."""
    count = size = 0
    root = os.fsencode(tree)
    for folder, folders, files in os.walk(root):
        # A link to a folder is listed among the folders, but it is an item like any other.
        links = [name for name in folders if os.path.islink(os.path.join(folder, name))]
        folders[:] = [name for name in folders if name != CLUTTER and name not in links]
        for name in files + links:
            if name == CLUTTER:
                continue
            count += 1
            size += os.lstat(os.path.join(folder, name)).st_size
    return count, size


def parse_figures(stdout):
    match = FIGURES.search(stdout)
    if not match:
        sys.exit("unexpected output from pelmora-bench copy: %r" % stdout)
    return int(match.group(1)), int(match.group(2)), match.group(3) == b"true"


def prepared_run(argv, tree, size):
    """Runs one copy of `tree` from the same start as every other (see above). Returns the process's wall
    time, its stdout and its stderr."""
    warm(tree)
    sync()
    prime_memory(size + (1 << 30))
    wall, _, stdout, stderr = common.run(argv)
    sync()
    return wall, stdout, stderr


def timed_copy(name, tree, label, size, work_dir):
    """Returns the copy's time, the whole process's wall time and the copy's path. For cp -a the two
    times are the same; for pelmora-bench the first leaves out the start of the process (loading Qt),
    which the program has behind it when a backup starts."""
    destination = fresh_destination(label, work_dir)
    argv = pelmora_argv(tree, destination) if name == "pelmora" else cp_argv(tree, destination)
    wall, stdout, stderr = prepared_run(argv, tree, size)
    if name == "cp":
        return wall, wall, destination
    _, _, finished = parse_figures(stdout)
    if not finished:
        sys.exit("pelmora-bench copy answered result=false")
    match = COPY_TIME.search(stderr)
    if not match:
        sys.exit("pelmora-bench copy printed no copy_ms: %r" % stderr)
    return float(match.group(1)) / 1000, wall, destination


def time_rounds(label, tree, rounds, settle, cleanup, work_dir=None):
    """cleanup: "each copy" deletes a copy before the next one is made (so that every run starts with the
    same free memory: a kept copy of the big files made the second run of every round the slow one),
    "each round" deletes both copies after a round, "at the end" keeps them for the caller to delete."""
    walls = {"pelmora": [], "cp": [], "pelmora process": []}
    ratios = []
    process_ratios = []
    kept = []
    size = tree_bytes(tree)
    print("timing %d rounds on %s..." % (rounds, tree), flush=True)
    for round_index in range(rounds):
        order = ["pelmora", "cp"] if round_index % 2 == 0 else ["cp", "pelmora"]
        this_round = {}
        copies = []
        for name in order:
            seconds, process_wall, destination = timed_copy(name, tree, "%s-%s" % (label, name), size, work_dir)
            walls[name].append(seconds)
            this_round[name] = seconds
            if name == "pelmora":
                walls["pelmora process"].append(process_wall)
                this_round["pelmora process"] = process_wall
            if cleanup == "each copy":
                remove(destination)
                sync()
                time.sleep(settle)
            else:
                copies.append(destination)
        ratios.append(this_round["pelmora"] / this_round["cp"])
        process_ratios.append(this_round["pelmora process"] / this_round["cp"])
        print("  round %d: pelmora %.3f s (process %.3f s), cp -a %.3f s, ratio %.3f (process %.3f)"
              % (round_index + 1, this_round["pelmora"], this_round["pelmora process"], this_round["cp"],
                 ratios[-1], process_ratios[-1]), flush=True)
        if cleanup == "each round":
            for copy in copies:
                remove(copy)
            sync()
            time.sleep(settle)
        else:
            kept.extend(copies)
    return walls, ratios, process_ratios, kept


def report_ratios(label, walls, ratios, process_ratios, target):
    median = statistics.median(ratios)
    of_medians = statistics.median(walls["pelmora"]) / statistics.median(walls["cp"])
    ok = median <= target
    print("%s: median copy time: pelmora-bench copy %.3f s (%.3f s with the process start), cp -a %.3f s"
          % (label, statistics.median(walls["pelmora"]), statistics.median(walls["pelmora process"]),
             statistics.median(walls["cp"])))
    print("%s: per-round ratios pelmora/cp: %s" % (label, " ".join("%.3f" % r for r in ratios)))
    print("%s: ratio of the medians: %.3f; median of the per-round ratios with the process start: %.3f"
          % (label, of_medians, statistics.median(process_ratios)))
    print("%s: median ratio pelmora/cp: %.3f (target <= %.2f) %s" % (label, median, target,
                                                                   "PASS" if ok else "FAIL"))
    return ok


def rsync_differences(source, destination):
    """rsync's itemized differences, less the ".DS_Store" items the copier leaves out on purpose."""
    result = subprocess.run(["rsync", "-anc", "--itemize-changes", source.rstrip("/") + "/",
                             destination.rstrip("/") + "/"], stdout=subprocess.PIPE, check=True)
    unexpected = []
    skipped = 0
    for line in result.stdout.split(b"\n"):
        if not line:
            continue
        path = line.split(b" ", 1)[1] if b" " in line else line
        if has_clutter(path.rstrip(b"/")):
            skipped += 1
        else:
            unexpected.append(line)
    return unexpected, skipped


def time_differences(source, destination):
    """Items whose modification time differs to the nanosecond, or that are missing from the copy."""
    differences = []
    compared = 0
    root = os.fsencode(source)
    copy_root = os.fsencode(destination)
    for folder, folders, files in os.walk(root):
        folders[:] = [name for name in folders if name != CLUTTER]
        relative_folder = os.path.relpath(folder, root)
        for name in [b"."] + folders + [name for name in files if name != CLUTTER]:
            relative = os.path.normpath(os.path.join(relative_folder, name))
            original = os.lstat(os.path.join(root, relative))
            try:
                copied = os.lstat(os.path.join(copy_root, relative))
            except OSError:
                differences.append((relative, "missing"))
                continue
            compared += 1
            if original.st_mtime_ns != copied.st_mtime_ns:
                differences.append((relative, "%d != %d" % (original.st_mtime_ns, copied.st_mtime_ns)))
    return differences, compared


def check_copy(label, source, destination, stdout=None):
    ok = True
    if stdout is not None:
        files, size, finished = parse_figures(stdout)
        want_files, want_size = expected_figures(source)
        same = (files, size) == (want_files, want_size) and finished
        print("%s: pelmora-bench copy reported copied=%d bytes=%d result=%s; expected copied=%d bytes=%d -> %s"
              % (label, files, size, "true" if finished else "false", want_files, want_size,
                 "IDENTICAL" if same else "DIFFERENT"))
        ok = same
    unexpected, skipped = rsync_differences(source, destination)
    print("%s: rsync -anc --itemize-changes: %d line(s) for .DS_Store items left out on purpose, "
          "%d other line(s) -> %s" % (label, skipped, len(unexpected), "PASS" if not unexpected else "FAIL"))
    for line in unexpected[:10]:
        print("    " + line.decode(errors="replace"))
    differences, compared = time_differences(source, destination)
    print("%s: nanosecond modification times: %d items compared, %d different -> %s"
          % (label, compared, len(differences), "PASS" if not differences else "FAIL"))
    for relative, what in differences[:10]:
        print("    %s: %s" % (relative.decode(errors="replace"), what))
    return ok and not unexpected and not differences


def peak_memory_kb(tree, runs=2):
    # As in measure_bench: spawned from a small shell so that the interpreter's own peak is not carried
    # over into the copier's figure.
    env = dict(os.environ, PELMORA_BENCH_RSS="1")
    peaks = []
    for _ in range(runs):
        destination = fresh_destination("memory")
        argv = ["/bin/sh", "-c", '"$0" "$@"; exit $?'] + pelmora_argv(tree, destination)
        _, _, stdout, stderr = common.run(argv, env)
        match = PEAK.search(stderr)
        if not match:
            sys.exit("pelmora-bench printed no MaxRSSkB: %r" % stderr)
        peaks.append(int(match.group(1)))
        remove(destination)
    return max(peaks)


def ensure_big_tree(file_mb):
    """A few large files of random-looking content, made once; remade when the size asked for changes."""
    stamp = BIG_TREE + ".stamp"
    wanted = "%d x %d MiB\n" % (BIG_FILES, file_mb)
    if os.path.isdir(BIG_TREE) and os.path.exists(stamp) and open(stamp).read() == wanted:
        print("reusing %s (%s)" % (BIG_TREE, wanted.strip()))
        return
    remove(BIG_TREE)
    os.makedirs(BIG_TREE)
    started = time.monotonic()
    block = bytearray(os.urandom(16 << 20))
    for index in range(BIG_FILES):
        with open(os.path.join(BIG_TREE, "Movie %d.mov" % (index + 1)), "wb") as out:
            for chunk in range((file_mb << 20) // len(block)):
                # Every chunk differs from the others, so no layer below can fold them together.
                block[0:16] = (index * 1_000_000 + chunk).to_bytes(16, "little")
                out.write(block)
    with open(stamp, "w") as out:
        out.write(wanted)
    sync()
    print("made %s (%s) in %.1f s" % (BIG_TREE, wanted.strip(), time.monotonic() - started))


def big_file_mb(requested, rounds_kept):
    """Scales the big files down when the disk cannot hold the tree and the copies of a round."""
    os.makedirs(BIG_ROOT, exist_ok=True)
    existing = tree_bytes(BIG_TREE) if os.path.isdir(BIG_TREE) else 0
    available = free_bytes(BIG_ROOT) + existing - SPACE_MARGIN
    fits = available // ((1 + rounds_kept) * BIG_FILES) >> 20
    if fits >= requested:
        return requested
    if fits < MIN_BIG_FILE_MB:
        sys.exit("not enough free space for the big-file tree (%d MiB available)" % (available >> 20))
    print("NOTE: only %d MiB free: big files scaled down from %d MiB to %d MiB each"
          % (available >> 20, requested, fits))
    return fits


def many_files_phase(args):
    tree = common.DEFAULT_TREE
    common.ensure_tree(tree, [])
    common.ensure_tree(common.SMALL_TREE, common.SMALL_TREE_ARGS)
    size = tree_bytes(tree)
    keep = free_bytes(common.OUT_DIR) - SPACE_MARGIN > size * 2 * args.rounds
    print("many files: %s, %.2f GB; copies %s" % (tree, size / 1e9,
                                                  "kept until the end" if keep else "deleted after each round"))
    walls, ratios, process_ratios, kept = time_rounds("many", tree, args.rounds, args.settle,
                                                      "at the end" if keep else "each round")
    print()
    ratio_ok = report_ratios("many files", walls, ratios, process_ratios, TARGET_MANY)
    for copy in kept:
        remove(copy)
    sync()
    time.sleep(args.settle)

    # One more copy, untimed, to check what it holds and what it reported.
    destination = fresh_destination("check-many")
    _, _, stdout, _ = common.run(pelmora_argv(tree, destination))
    print()
    copy_ok = check_copy("many files", tree, destination, stdout)
    remove(destination)
    sync()
    time.sleep(args.settle)

    large_peak = peak_memory_kb(tree)
    small_peak = peak_memory_kb(common.SMALL_TREE)
    memory_ok = large_peak <= small_peak * (1 + MEMORY_TOLERANCE)
    print("peak memory of pelmora-bench copy: %d kB on %s (%d items copied), %d kB on %s (%d items copied)"
          % (large_peak, tree, expected_figures(tree)[0], small_peak, common.SMALL_TREE,
             expected_figures(common.SMALL_TREE)[0]))
    print("memory independent of the number of files (within %d%%): %s"
          % (MEMORY_TOLERANCE * 100, "PASS" if memory_ok else "FAIL"))
    sync()
    time.sleep(args.settle)
    return ratio_ok and copy_ok and memory_ok


def du_bytes(paths):
    """du's count of the blocks of the last path that none of the paths before it holds."""
    result = subprocess.run(["du", "-s", "-B1"] + paths, stdout=subprocess.PIPE, check=True)
    return int(result.stdout.split(b"\n")[-2].split(b"\t")[0])


def shared_files(first, second):
    """How many regular files of `second` are the very file (the same inode) of `first`."""
    shared = total = 0
    for folder, _, files in os.walk(os.fsencode(second)):
        for name in files:
            path = os.path.join(folder, name)
            status = os.lstat(path)
            if not stat.S_ISREG(status.st_mode):
                continue
            total += 1
            try:
                other = os.lstat(os.path.join(os.fsencode(first), os.path.relpath(path, os.fsencode(second))))
            except OSError:
                continue
            shared += other.st_ino == status.st_ino
    return shared, total


def timed_pelmora(tree, destination, size, previous=None):
    _, stdout, stderr = prepared_run(pelmora_argv(tree, destination, previous), tree, size)
    if not parse_figures(stdout)[2]:
        sys.exit("pelmora-bench copy answered result=false")
    return float(COPY_TIME.search(stderr).group(1)) / 1000, stdout


def second_backup_phase(args):
    """A first backup, cp -a, and a second backup of the unchanged tree beside the first, in one round;
    the round's copies are deleted at its end. cp -a goes first or second in turn."""
    tree = common.DEFAULT_TREE
    common.ensure_tree(tree, [])
    size = tree_bytes(tree)
    tree_blocks = du_bytes([tree])
    print("second backup: %s, %.2f GB in %d blocks' bytes" % (tree, size / 1e9, tree_blocks))
    firsts, seconds, cps, new_fractions = [], [], [], []
    content_ok = True
    for round_index in range(args.rounds):
        first, second, copied = (fresh_destination(label) for label in ("first", "second", "cp"))
        if round_index % 2:
            cps.append(prepared_run(cp_argv(tree, copied), tree, size)[0])
        firsts.append(timed_pelmora(tree, first, size)[0])
        if not round_index % 2:
            cps.append(prepared_run(cp_argv(tree, copied), tree, size)[0])
        second_time, stdout = timed_pelmora(tree, second, size, first)
        seconds.append(second_time)
        new_fractions.append(du_bytes([first, second]) / tree_blocks)
        print("  round %d: first backup %.3f s, cp -a %.3f s, second backup %.3f s; ratios %.3f and %.3f; "
              "new blocks %.2f%% of the tree's" % (round_index + 1, firsts[-1], cps[-1], seconds[-1],
                                                   firsts[-1] / cps[-1], seconds[-1] / cps[-1],
                                                   new_fractions[-1] * 100), flush=True)
        if round_index == 0:
            shared, total = shared_files(first, second)
            print("  files of the second backup that are the first's own: %d of %d" % (shared, total))
            content_ok = check_copy("second backup", tree, second, stdout) and shared == total
        for path in (first, second, copied):
            remove(path)
        sync()
        time.sleep(args.settle)
    first_ratio = statistics.median(f / c for f, c in zip(firsts, cps))
    second_ratio = statistics.median(s / c for s, c in zip(seconds, cps))
    new_blocks = max(new_fractions)
    print()
    print("second backup: medians: first backup %.3f s, cp -a %.3f s, second backup %.3f s"
          % (statistics.median(firsts), statistics.median(cps), statistics.median(seconds)))
    checks = [("first backup / cp -a", first_ratio, TARGET_MANY),
              ("second backup / cp -a", second_ratio, TARGET_SECOND),
              ("second backup's new blocks / the tree's", new_blocks, TARGET_NEW_BLOCKS)]
    ok = content_ok
    for label, value, target in checks:
        print("%s: %.3f (target <= %.2f) %s" % (label, value, target, "PASS" if value <= target else "FAIL"))
        ok = ok and value <= target
    return ok


def place_big_files(root):
    global BIG_ROOT, BIG_TREE, BIG_WORK_DIR
    BIG_ROOT = os.path.abspath(root)
    BIG_TREE = os.path.join(BIG_ROOT, "tree-big")
    BIG_WORK_DIR = os.path.join(BIG_ROOT, "copies")


def file_system_of(path):
    result = subprocess.run(["stat", "-f", "-c", "%T", path], stdout=subprocess.PIPE, text=True)
    return result.stdout.strip() or "an unknown file system"


def big_files_phase(args):
    file_mb = big_file_mb(args.big_file_mb, 2)
    ensure_big_tree(file_mb)
    print("big files: %d x %d MiB on %s" % (BIG_FILES, file_mb, file_system_of(BIG_ROOT)))
    # Few files: deleting them costs the next copy nothing, so each copy goes right away.
    walls, ratios, process_ratios, _ = time_rounds("big", BIG_TREE, args.big_rounds, min(args.settle, 10),
                                                   "each copy", BIG_WORK_DIR)
    print()
    ratio_ok = report_ratios("big files", walls, ratios, process_ratios, TARGET_BIG)
    destination = fresh_destination("check-big", BIG_WORK_DIR)
    _, _, stdout, _ = common.run(pelmora_argv(BIG_TREE, destination))
    copy_ok = check_copy("big files", BIG_TREE, destination, stdout)
    remove(destination)
    return ratio_ok and copy_ok


def main():
    parser = argparse.ArgumentParser(description="Benchmark the backup copy against cp -a.")
    parser.add_argument("--rounds", type=int, default=7, help="rounds on the many-file tree (default %(default)s)")
    parser.add_argument("--big-rounds", type=int, default=5, help="rounds on the big files (default %(default)s)")
    parser.add_argument("--big-file-mb", type=int, default=DEFAULT_BIG_FILE_MB,
                        help="size of each big file in MiB (default %(default)s)")
    parser.add_argument("--settle", type=float, default=75,
                        help="seconds to wait after deleting many files (default %(default)s)")
    parser.add_argument("--big-on", metavar="DIR",
                        help="make the big-file tree and its copies under DIR, e.g. a tmpfs, where the host's "
                             "disk does not set the pace (default: next to the other trees)")
    parser.add_argument("--skip-many", action="store_true", help="leave out the many-file tree")
    parser.add_argument("--skip-big", action="store_true", help="leave out the big files")
    parser.add_argument("--skip-second", action="store_true",
                        help="leave out the second backup beside a first one")
    args = parser.parse_args()
    if args.rounds < 1 or args.big_rounds < 1:
        parser.error("rounds must be at least 1")
    if not shutil.which("rsync"):
        sys.exit("rsync is needed to check the copies: apt-get install rsync")

    if args.big_on:
        place_big_files(args.big_on)
    common.build()
    remove(WORK_DIR)
    ok = True
    if not args.skip_many:
        ok = many_files_phase(args) and ok
        print()
    if not args.skip_second:
        ok = second_backup_phase(args) and ok
        print()
    if not args.skip_big:
        ok = big_files_phase(args) and ok
    remove(WORK_DIR)
    remove(BIG_WORK_DIR)
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
