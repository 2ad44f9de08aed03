#!/usr/bin/env python3
"""Copies the big-file tree with cp -a, pelmora-bench copy and a minimal C copier in rotation, to tell
what the program costs from what the machine does.

    copy_rotation.py [--rounds N] [--big-on DIR] [--programs cp,pelmora,minimal,minimal-thread]

minimal_copier.c does only what the big files need: a clone attempt, the sequential hint and
copy_file_range, on the main thread or on a second one. If it and pelmora-bench take the same time, the
program adds nothing to the calls themselves, and a gap to cp -a that both show belongs to the machine.
Each run starts as in copy_bench.py: the source read once, everything synced, the memory the copy will
fill touched once, and the previous copy deleted. Every program goes first in turn. pelmora-bench's and
the minimal copier's times are their own copy times; cp -a's is its process's wall time.
"""

import argparse
import os
import statistics
import subprocess
import sys

import copy_bench
import measure_bench as common

MINIMAL_SOURCE = os.path.join(common.BENCH_DIR, "minimal_copier.c")
MINIMAL_BINARY = os.path.join(common.OUT_DIR, "minimal_copier")


def build_minimal():
    os.makedirs(common.OUT_DIR, exist_ok=True)
    subprocess.run(["cc", "-O2", "-pthread", "-o", MINIMAL_BINARY, MINIMAL_SOURCE], check=True)


def argv_for(name, source, destination):
    return {
        "cp": ["cp", "-a", source, destination],
        "pelmora": copy_bench.pelmora_argv(source, destination),
        "minimal": [MINIMAL_BINARY, "main", source, destination],
        "minimal-thread": [MINIMAL_BINARY, "thread", source, destination],
    }[name]


def timed(name, size):
    destination = copy_bench.fresh_destination(name, copy_bench.BIG_WORK_DIR)
    wall, _, stderr = copy_bench.prepared_run(argv_for(name, copy_bench.BIG_TREE, destination),
                                              copy_bench.BIG_TREE, size)
    copy_bench.remove(destination)
    copy_bench.sync()
    if name == "cp":
        return wall
    match = copy_bench.COPY_TIME.search(stderr)
    if not match:
        sys.exit("%s printed no copy_ms: %r" % (name, stderr))
    return float(match.group(1)) / 1000


def main():
    parser = argparse.ArgumentParser(description="cp -a, pelmora-bench copy and a minimal copier in rotation.")
    parser.add_argument("--rounds", type=int, default=8)
    parser.add_argument("--big-on", metavar="DIR", help="where the big-file tree and its copies go")
    parser.add_argument("--big-file-mb", type=int, default=copy_bench.DEFAULT_BIG_FILE_MB)
    parser.add_argument("--programs", default="cp,pelmora,minimal,minimal-thread")
    args = parser.parse_args()
    names = args.programs.split(",")
    if args.rounds < 1 or not names or any(name not in ("cp", "pelmora", "minimal", "minimal-thread")
                                           for name in names):
        parser.error("rounds must be at least 1 and programs among cp,pelmora,minimal,minimal-thread")
    if args.big_on:
        copy_bench.place_big_files(args.big_on)
    common.build()
    build_minimal()
    copy_bench.ensure_big_tree(copy_bench.big_file_mb(args.big_file_mb, 1))
    size = copy_bench.tree_bytes(copy_bench.BIG_TREE)
    print("big files on %s, %d rounds" % (copy_bench.file_system_of(copy_bench.BIG_ROOT), args.rounds))
    times = {name: [] for name in names}
    for round_index in range(args.rounds):
        shift = round_index % len(names)
        order = names[shift:] + names[:shift]
        for name in order:
            times[name].append(timed(name, size))
        print("  round %d: %s" % (round_index + 1, ", ".join("%s %.3f s" % (name, times[name][-1])
                                                              for name in order)), flush=True)
    copy_bench.remove(copy_bench.BIG_WORK_DIR)
    cp_median = statistics.median(times["cp"]) if "cp" in times else None
    for name in names:
        median = statistics.median(times[name])
        against = " (%.3f x cp -a)" % (median / cp_median) if cp_median and name != "cp" else ""
        print("%-15s median %.3f s%s; all %s" % (name, median, against,
                                                 " ".join("%.2f" % t for t in times[name])))
    return 0


if __name__ == "__main__":
    sys.exit(main())
