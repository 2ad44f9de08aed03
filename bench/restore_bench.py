#!/usr/bin/env python3
"""Times the restore against rsync -a --delete, and checks what it leaves in the live folder.

    restore_bench.py [--rounds N] [--touched-percent P] [--settle S]

A backup of the generated 100,000-file tree is made once with pelmora-bench copy, so that it holds no
".DS_Store" files and every time matches to the nanosecond. Two live folders, LIVE and LIVE2, are made
the same way. Two cases are timed, each over several rounds:

  unchanged  LIVE and LIVE2 already match the backup: the restore has to find out that nothing is to do.
  touched    before every round the same P% of the files (1% by default) get new content and a new time
             in both live folders, identically; the restore has to put the backup's files back.

Each round runs `pelmora-bench restore LIVE BACKUP` (the window's own restore run: the pruning, which
moves what goes to the Trash of $XDG_DATA_HOME, set to a folder of this benchmark, and the count, then
the copy back with its progress added up on the main loop) and `rsync -a --delete BACKUP/ LIVE2/`,
the same job done on the other folder. The machines are shared and small, so what counts is the median
of the per-round ratio (pelmora / rsync); whichever program goes first changes every round.

The root file system here is ext4 without a journal, which will not reuse the inodes of files deleted in
the last minute or so: creating many files right after deleting many is slow for that long. So the live
folders are made once, a round changes only the touched files (rewritten in place, never deleted), and
the restore itself puts them back: between rounds nothing is re-copied.

After every pelmora round, rsync -anc --delete --itemize-changes --exclude=.DS_Store BACKUP/ LIVE/ has to
list nothing. Folder times are left out of that comparison (--omit-dir-times): a restore keeps the
folders that stay, and removing and adding files changes their times. The touched files are also
compared to the nanosecond, which rsync does not do, and the figures printed by pelmora-bench are held
against what the round changed. The Trash must then hold exactly the old versions of the touched files,
each with a .trashinfo naming its place in LIVE; it is emptied, untimed, before the next round.
Targets: unchanged <= 0.5x, touched <= 0.6x.
"""

import argparse
import os
import random
import re
import shutil
import statistics
import subprocess
import sys
import time
import urllib.parse

import copy_bench
import measure_bench as common

WORK_DIR = os.path.join(common.OUT_DIR, "restore")
BACKUP = os.path.join(WORK_DIR, "backup")
LIVE = os.path.join(WORK_DIR, "live")
LIVE2 = os.path.join(WORK_DIR, "live2")
# The restore moves what it prunes to the Trash of this data home, which is emptied after every round.
DATA_HOME = os.path.join(WORK_DIR, "data-home")
TRASH = os.path.join(DATA_HOME, "Trash")
SPACE_MARGIN = 4 << 30
TARGETS = {"unchanged": 0.5, "touched": 0.6}
SEED = 7

FIGURES = re.compile(rb"pruned_then_copied=(\d+) bytes=(\d+) result=(true|false)")
TRASHED = re.compile(rb"trashed=(\d+) kept=(\d+) not_removed=(\d+) removed_for_good=(\d+)")
TRASH_INFO = re.compile(rb"\A\[Trash Info\]\nPath=(/[^\n]+)\nDeletionDate=\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\n\Z")
TO_COPY = re.compile(rb"to_copy=(-?\d+) to_copy_bytes=(\d+)")
COPIED = re.compile(rb"copied=(\d+) bytes=(\d+) result=(true|false)")


def pelmora_argv(live, backup):
    return [common.BENCH_BINARY, "restore", live, backup]


def rsync_argv(backup, live):
    return ["rsync", "-a", "--delete", backup + "/", live + "/"]


def make_copy(source, destination):
    """A copy by the program's own copier: no ".DS_Store" files, times to the nanosecond."""
    _, _, stdout, _ = common.run([common.BENCH_BINARY, "copy", source, destination])
    match = COPIED.search(stdout)
    if not match or match.group(3) != b"true":
        sys.exit("pelmora-bench copy %s %s failed: %r" % (source, destination, stdout))
    return int(match.group(1))


def prepare(tree):
    if os.path.lexists(WORK_DIR):
        print("removing what an earlier run left in %s..." % WORK_DIR, flush=True)
        copy_bench.remove(WORK_DIR)
        copy_bench.sync()
    os.makedirs(WORK_DIR)
    started = time.monotonic()
    for folder in (BACKUP, LIVE, LIVE2):
        make_copy(tree, folder)
    copy_bench.sync()
    print("made the backup and the two live folders in %.1f s" % (time.monotonic() - started))


def visible_files(root):
    """Regular files with no hidden name on their path: the restore leaves hidden ones to the user."""
    found = []
    base = os.fsencode(root)
    for folder, folders, files in os.walk(base):
        folders[:] = sorted(name for name in folders if not name.startswith(b"."))
        relative_folder = os.path.relpath(folder, base)
        for name in sorted(files):
            path = os.path.join(folder, name)
            if not name.startswith(b".") and os.path.isfile(path) and not os.path.islink(path):
                found.append(os.path.normpath(os.path.join(relative_folder, name)))
    return found


def touch(live, touched, round_index):
    """New content and a new time for every touched file, rewritten in place: nothing is deleted."""
    modified = 1_800_000_000_000_000_000 + round_index * 1_000_000_007
    base = os.fsencode(live)
    for relative in touched:
        path = os.path.join(base, relative)
        with open(path, "wb") as out:
            out.write(b"edited in round %d: %s\n" % (round_index, relative))
        os.utime(path, ns=(modified, modified))


def parse(stdout, stderr):
    figures = FIGURES.search(stdout)
    to_copy = TO_COPY.search(stderr)
    if not figures or not to_copy:
        sys.exit("unexpected output from pelmora-bench restore: %r %r" % (stdout, stderr))
    return (int(figures.group(1)), int(figures.group(2)), figures.group(3) == b"true",
            int(to_copy.group(1)), int(to_copy.group(2)))


def check_and_empty_trash(label, touched, stdout):
    """Every touched file's old version, and nothing else, is in the Trash with a valid .trashinfo naming
    its place in LIVE; then the Trash is emptied, untimed, for the next round."""
    counts = TRASHED.search(stdout)
    files = sorted(os.listdir(os.path.join(TRASH, "files"))) if os.path.isdir(TRASH) else []
    originals = []
    for name in files:
        with open(os.path.join(TRASH, "info", name + ".trashinfo"), "rb") as info:
            match = TRASH_INFO.match(info.read())
        if match:
            originals.append(urllib.parse.unquote_to_bytes(match.group(1).decode()))
    expected = sorted(os.path.join(os.fsencode(LIVE), relative) for relative in touched)
    ok = counts is not None and int(counts.group(1)) == len(touched) and sorted(originals) == expected \
        and counts.group(2) == counts.group(3) == counts.group(4) == b"0"
    if not ok:
        print("  %s: TRASH CHECK FAILED: %s, %d item(s) in the Trash, %d with a valid .trashinfo, %d expected"
              % (label, counts.group(0).decode() if counts else "no counts", len(files), len(originals), len(expected)))
    shutil.rmtree(TRASH, ignore_errors=True)
    return ok


def verify(label, touched, expected_files, expected_bytes, figures):
    """LIVE against the backup by rsync, the touched files by nanosecond time, and the printed figures."""
    result = subprocess.run(["rsync", "-anc", "--delete", "--omit-dir-times", "--itemize-changes",
                             "--exclude=.DS_Store", BACKUP + "/", LIVE + "/"], stdout=subprocess.PIPE, check=True)
    lines = [line for line in result.stdout.split(b"\n") if line]
    times = 0
    for relative in touched:
        if os.lstat(os.path.join(os.fsencode(BACKUP), relative)).st_mtime_ns != \
                os.lstat(os.path.join(os.fsencode(LIVE), relative)).st_mtime_ns:
            times += 1
    copied, size, finished, to_copy, to_copy_bytes = figures
    figures_ok = finished and (copied, size) == (expected_files, expected_bytes) == (to_copy, to_copy_bytes)
    ok = not lines and not times and figures_ok
    if not ok:
        print("  %s: CHECK FAILED: %d rsync line(s), %d nanosecond time(s) differ, figures %s (expected %d files,"
              " %d bytes)" % (label, len(lines), times, figures, expected_files, expected_bytes))
        for line in lines[:10]:
            print("    " + line.decode(errors="replace"))
    return ok


def time_case(label, target, rounds, touched, settle):
    expected_bytes = sum(os.lstat(os.path.join(os.fsencode(BACKUP), relative)).st_size for relative in touched)
    walls = {"pelmora": [], "rsync": []}
    ratios = []
    checks_ok = True
    printed = None
    print("%s: %d rounds, %d file(s) touched per round" % (label, rounds, len(touched)), flush=True)
    for round_index in range(rounds):
        if touched:
            touch(LIVE, touched, round_index)
            touch(LIVE2, touched, round_index)
        order = ["pelmora", "rsync"] if round_index % 2 == 0 else ["rsync", "pelmora"]
        this_round = {}
        for name in order:
            copy_bench.sync()
            argv = pelmora_argv(LIVE, BACKUP) if name == "pelmora" else rsync_argv(BACKUP, LIVE2)
            wall, _, stdout, stderr = common.run(argv)
            copy_bench.sync()
            this_round[name] = wall
            walls[name].append(wall)
            if name == "pelmora":
                figures = parse(stdout, stderr)
                printed = stdout.decode().strip()
                checks_ok = verify(label, touched, len(touched), expected_bytes, figures) and checks_ok
                checks_ok = check_and_empty_trash(label, touched, stdout) and checks_ok
        ratios.append(this_round["pelmora"] / this_round["rsync"])
        print("  round %d: pelmora %.3f s, rsync %.3f s, ratio %.3f  [%s]"
              % (round_index + 1, this_round["pelmora"], this_round["rsync"], ratios[-1], printed), flush=True)
        if touched and settle:
            time.sleep(settle)
    median = statistics.median(ratios)
    ratio_ok = median <= target
    print("%s: pelmora-bench restore median wall %.3f s, rsync -a --delete median wall %.3f s"
          % (label, statistics.median(walls["pelmora"]), statistics.median(walls["rsync"])))
    print("%s: per-round ratios pelmora/rsync: %s" % (label, " ".join("%.3f" % r for r in ratios)))
    print("%s: median ratio pelmora/rsync: %.3f (target <= %.2f) %s"
          % (label, median, target, "PASS" if ratio_ok else "FAIL"))
    print("%s: LIVE equal to the backup and the Trash holding exactly the pruned files after every pelmora"
          " round (rsync -anc, ns times, figures, .trashinfo): %s"
          % (label, "PASS" if checks_ok else "FAIL"))
    print(flush=True)
    return ratio_ok and checks_ok


def main():
    parser = argparse.ArgumentParser(description="Benchmark the restore against rsync -a --delete.")
    parser.add_argument("--rounds", type=int, default=9, help="rounds per case (default %(default)s)")
    parser.add_argument("--touched-percent", type=float, default=1.0,
                        help="share of the files touched in the second case (default %(default)s)")
    parser.add_argument("--settle", type=float, default=0,
                        help="seconds to wait after each round of the second case (default %(default)s)")
    args = parser.parse_args()
    if args.rounds < 1:
        parser.error("--rounds must be at least 1")
    if not shutil.which("rsync"):
        sys.exit("rsync is needed: scripts/bootstrap installs it")

    common.build()
    tree = common.DEFAULT_TREE
    common.ensure_tree(tree, [])
    os.makedirs(common.OUT_DIR, exist_ok=True)
    subprocess.run(["df", "-h", common.OUT_DIR], check=True)
    needed = 3 * copy_bench.tree_bytes(tree) + SPACE_MARGIN
    if copy_bench.free_bytes(common.OUT_DIR) < needed:
        common.ensure_tree(common.SMALL_TREE, common.SMALL_TREE_ARGS)
        print("NOTE: less than %.1f GB free: running on %s instead of %s"
              % (needed / 1e9, common.SMALL_TREE, tree))
        tree = common.SMALL_TREE

    prepare(tree)
    os.environ["XDG_DATA_HOME"] = DATA_HOME
    try:
        # Untimed, to bring both live folders and the backup into the cache alike.
        common.run(pelmora_argv(LIVE, BACKUP))
        common.run(rsync_argv(BACKUP, LIVE2))
        shutil.rmtree(TRASH, ignore_errors=True)
        files = visible_files(BACKUP)
        touched = sorted(random.Random(SEED).sample(files, max(1, round(len(files) * args.touched_percent / 100))))
        ok = time_case("unchanged", TARGETS["unchanged"], args.rounds, [], 0)
        ok = time_case("%g%% touched" % args.touched_percent, TARGETS["touched"], args.rounds, touched,
                       args.settle) and ok
    finally:
        copy_bench.remove(WORK_DIR)
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
