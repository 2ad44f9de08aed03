#!/usr/bin/env python3
"""Times the folder measure against du on the generated tree, checks its figures and its memory.

    measure_bench.py [--tree DIR] [--rounds N]

The machines this runs on are shared and small, so absolute times say little: the two programs are run
alternately, round after round, and what counts is the median of the per-round ratio. Whichever program
goes first changes every round, so that neither always inherits the other's cache state.

The figures are checked against a count made by find, which walks the tree on its own. Peak memory is
taken on the default tree and on one ten times smaller: it has to stay the same, since the walk keeps
nothing per file.
"""

import argparse
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

BENCH_DIR = os.path.dirname(os.path.abspath(__file__))
SOURCE_DIR = os.path.dirname(BENCH_DIR)
BUILD_DIR = os.path.join(SOURCE_DIR, "build")
BENCH_BINARY = os.path.join(BUILD_DIR, "bench", "pelmora-bench")
GENERATOR = os.path.join(BENCH_DIR, "generate_tree.py")
OUT_DIR = os.path.join(BENCH_DIR, "out")
DEFAULT_TREE = os.path.join(OUT_DIR, "tree-100k")
SMALL_TREE = os.path.join(OUT_DIR, "tree-10k")
SMALL_TREE_ARGS = ["--files", "10000", "--folders", "500"]

TARGET_RATIO = 0.9
# A flat memory profile still moves a little with the shape of the tree (the pending folders on the
# current path); anything beyond this would be growth with the number of files.
MEMORY_TOLERANCE = 0.10

FIGURES = re.compile(rb"TotalSize=(\d+) TotalFilesCount=(-?\d+)")
PEAK = re.compile(rb"MaxRSSkB=(\d+)")


def build():
    print("building pelmora-bench...", flush=True)
    subprocess.run(["cmake", "--build", BUILD_DIR, "--target", "pelmora-bench", "-j2"], check=True,
                   stdout=subprocess.DEVNULL)


def ensure_tree(path, extra_args):
    """Generates the tree unless it is there already; the generator itself reuses a matching one."""
    if path not in (DEFAULT_TREE, SMALL_TREE) and os.path.isdir(path) and os.listdir(path):
        # A tree the caller chose and that is already there: measured as it is.
        print("using %s as it is" % path)
        return
    os.makedirs(OUT_DIR, exist_ok=True)
    started = time.monotonic()
    result = subprocess.run([sys.executable, GENERATOR, path] + extra_args, stdout=subprocess.PIPE)
    sys.stdout.write(result.stdout.decode(errors="replace"))
    if result.returncode != 0:
        sys.exit("could not generate %s" % path)
    if not result.stdout.startswith(b"reusing"):
        print("  (generation took %.1f s)" % (time.monotonic() - started))


def run(argv, env=None):
    """One run, spawned directly and reaped with wait4 so that the same thin path serves both programs.
    Returns wall seconds, CPU seconds (user + system), stdout, stderr."""
    with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
        actions = [(os.POSIX_SPAWN_DUP2, out.fileno(), 1), (os.POSIX_SPAWN_DUP2, err.fileno(), 2)]
        started = time.perf_counter()
        pid = os.posix_spawnp(argv[0], argv, env if env is not None else os.environ, file_actions=actions)
        _, status, usage = os.wait4(pid, 0)
        wall = time.perf_counter() - started
        out.seek(0)
        err.seek(0)
        stdout, stderr = out.read(), err.read()
    code = os.waitstatus_to_exitcode(status)
    if code != 0:
        sys.exit("%s failed (%d): %s" % (" ".join(argv), code, stderr.decode(errors="replace")))
    return wall, usage.ru_utime + usage.ru_stime, stdout, stderr


def pelmora_argv(tree):
    return [BENCH_BINARY, "measure", tree]


def du_argv(tree):
    return ["du", "-sb", "--apparent-size", tree]


def pelmora_figures(tree):
    _, _, stdout, _ = run(pelmora_argv(tree))
    match = FIGURES.search(stdout)
    if not match:
        sys.exit("unexpected output from pelmora-bench: %r" % stdout)
    return int(match.group(1)), int(match.group(2))


def find_figures(tree):
    # Only sizes are printed, one a line, so names (whatever their bytes) never reach this side.
    result = subprocess.run(["find", tree, "!", "-type", "d", "!", "-name", ".DS_Store", "-printf", "%s\\n"],
                            stdout=subprocess.PIPE, check=True)
    sizes = result.stdout.split(b"\n")[:-1]
    return sum(int(s) for s in sizes), len(sizes)


def peak_memory_kb(tree, runs=3):
    # Linux carries the peak of the memory an exec replaces over into the new program's own figure, and
    # a child spawned straight from here replaces this interpreter's (over 10 MB, far above the walk's).
    # A fork from a small shell, whose peak is about 1.7 MB, leaves the walk's own figure standing.
    env = dict(os.environ, PELMORA_BENCH_RSS="1")
    argv = ["/bin/sh", "-c", '"$0" "$@"; exit $?'] + pelmora_argv(tree)
    peaks = []
    for _ in range(runs):
        _, _, _, stderr = run(argv, env)
        match = PEAK.search(stderr)
        if not match:
            sys.exit("pelmora-bench printed no MaxRSSkB: %r" % stderr)
        peaks.append(int(match.group(1)))
    return max(peaks)


def check_figures(label, tree):
    ours = pelmora_figures(tree)
    theirs = find_figures(tree)
    same = ours == theirs
    print("figures (%s): pelmora TotalSize=%d TotalFilesCount=%d | find TotalSize=%d TotalFilesCount=%d -> %s"
          % (label, ours[0], ours[1], theirs[0], theirs[1], "IDENTICAL" if same else "DIFFERENT"))
    return same


def main():
    parser = argparse.ArgumentParser(description="Benchmark the folder measure against du.")
    parser.add_argument("--tree", default=DEFAULT_TREE, help="tree to time (default %(default)s)")
    parser.add_argument("--rounds", type=int, default=15, help="timed rounds (default %(default)s)")
    args = parser.parse_args()
    if args.rounds < 1:
        parser.error("--rounds must be at least 1")
    tree = os.path.abspath(args.tree)

    build()
    ensure_tree(tree, [])
    ensure_tree(SMALL_TREE, SMALL_TREE_ARGS)

    # Warm the cache: both programs read the same inodes, so the first run of either pays for both.
    run(pelmora_argv(tree))
    run(du_argv(tree))

    walls = {"pelmora": [], "du": []}
    cpus = {"pelmora": [], "du": []}
    ratios = []
    cpu_ratios = []  # CPU time is less disturbed by neighbours than wall time; shown for reference only
    print("timing %d rounds on %s..." % (args.rounds, tree), flush=True)
    for round_index in range(args.rounds):
        order = ["pelmora", "du"] if round_index % 2 == 0 else ["du", "pelmora"]
        this_round = {}
        for name in order:
            wall, cpu, _, _ = run(pelmora_argv(tree) if name == "pelmora" else du_argv(tree))
            walls[name].append(wall)
            cpus[name].append(cpu)
            this_round[name] = wall
        ratios.append(this_round["pelmora"] / this_round["du"])
        cpu_ratios.append(cpus["pelmora"][-1] / max(cpus["du"][-1], 1e-6))

    median_ratio = statistics.median(ratios)
    print()
    print("pelmora-bench measure: median wall %.1f ms (median CPU %.1f ms)"
          % (statistics.median(walls["pelmora"]) * 1e3, statistics.median(cpus["pelmora"]) * 1e3))
    print("du -sb --apparent-size: median wall %.1f ms (median CPU %.1f ms)"
          % (statistics.median(walls["du"]) * 1e3, statistics.median(cpus["du"]) * 1e3))
    print("per-round ratios pelmora/du: %s" % " ".join("%.3f" % r for r in ratios))
    ratio_ok = median_ratio <= TARGET_RATIO
    print("median ratio pelmora/du: %.3f (target <= %.2f) %s" % (median_ratio, TARGET_RATIO,
                                                              "PASS" if ratio_ok else "FAIL"))
    print("median per-round CPU-time ratio pelmora/du (reference only): %.3f" % statistics.median(cpu_ratios))
    print()

    figures_ok = check_figures("timed tree", tree)
    figures_ok = check_figures("small tree", SMALL_TREE) and figures_ok
    print()

    large_peak = peak_memory_kb(tree)
    small_peak = peak_memory_kb(SMALL_TREE)
    _, small_count = find_figures(SMALL_TREE)
    _, large_count = find_figures(tree)
    memory_ok = large_peak <= small_peak * (1 + MEMORY_TOLERANCE)
    print("peak memory: %d kB on %s (%d items), %d kB on %s (%d items)"
          % (large_peak, tree, large_count, small_peak, SMALL_TREE, small_count))
    print("memory independent of the number of files (within %d%%): %s"
          % (MEMORY_TOLERANCE * 100, "PASS" if memory_ok else "FAIL"))

    return 0 if ratio_ok and figures_ok and memory_ok else 1


if __name__ == "__main__":
    sys.exit(main())
