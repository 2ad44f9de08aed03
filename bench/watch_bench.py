#!/usr/bin/env python3
"""Times the folder event stream on the generated tree: start-up against inotifywait, memory per watched
folder, and the delay from a file write deep in the tree to its delivery.

    watch_bench.py [--tree DIR] [--rounds N] [--latency SECONDS] [--probes N]

Needs inotifywait (Debian package inotify-tools). As with the other scripts, the two programs run
alternately in one run and the median of the per-round ratio is what counts.
"""

import argparse
import os
import queue
import re
import shutil
import statistics
import subprocess
import sys
import threading
import time

import measure_bench as common

TARGET_START_RATIO = 0.5
DELAY_ALLOWANCE = 0.100


class Watcher:
    """A running program whose output lines are timestamped as they arrive."""

    def __init__(self, argv, env=None, stream="stdout"):
        self.lines = queue.Queue()
        self.process = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=env)
        self.started = time.perf_counter()
        self.stderr_lines = []
        source = self.process.stdout if stream == "stdout" else self.process.stderr
        other = self.process.stderr if stream == "stdout" else self.process.stdout
        threading.Thread(target=self._pump, args=(source, True), daemon=True).start()
        threading.Thread(target=self._pump, args=(other, False), daemon=True).start()

    def _pump(self, pipe, timed):
        for line in iter(pipe.readline, b""):
            if timed:
                self.lines.put((time.perf_counter(), line.rstrip(b"\n")))
            else:
                self.stderr_lines.append(line.rstrip(b"\n"))

    def wait_for(self, predicate, timeout=60):
        deadline = time.perf_counter() + timeout
        while True:
            left = deadline - time.perf_counter()
            if left <= 0:
                sys.exit("timed out waiting for output from %s" % self.process.args[0])
            try:
                when, line = self.lines.get(timeout=left)
            except queue.Empty:
                continue
            if predicate(line):
                return when, line

    def stop(self):
        self.process.terminate()
        self.process.wait()


def pelmora_watch(tree, latency, env=None):
    return [common.BENCH_BINARY, "watch", tree, str(latency)]


def time_to_ready(tree):
    watcher = Watcher(pelmora_watch(tree, 3.0))
    when, _ = watcher.wait_for(lambda line: line == b"ready")
    watcher.stop()
    return when - watcher.started


def time_to_inotifywait(tree):
    watcher = Watcher(["inotifywait", "-r", "-m", tree], stream="stderr")
    when, _ = watcher.wait_for(lambda line: line.startswith(b"Watches established"))
    watcher.stop()
    return when - watcher.started


def memory_per_folder(tree):
    env = dict(os.environ, PELMORA_BENCH_RSS="1")
    watcher = Watcher(pelmora_watch(tree, 3.0), env=env)
    watcher.wait_for(lambda line: line == b"ready")
    deadline = time.perf_counter() + 10
    while not any(b"RSSAfterStartkB" in l for l in watcher.stderr_lines) and time.perf_counter() < deadline:
        time.sleep(0.05)
    text = b"\n".join(watcher.stderr_lines)
    watcher.stop()
    match = re.search(rb"RSSBeforeStartkB=(\d+) RSSAfterStartkB=(\d+)", text)
    if not match:
        sys.exit("pelmora-bench printed no memory figures: %r" % text)
    return int(match.group(1)), int(match.group(2)), text


def count_folders(tree):
    result = subprocess.run(["find", tree, "-type", "d", "-printf", "x"], stdout=subprocess.PIPE, check=True)
    return len(result.stdout)


def deepest_folder(tree):
    deepest, depth = tree, 0
    for folder, subfolders, _ in os.walk(os.fsencode(tree)):
        level = folder.count(b"/")
        if level > depth and not os.path.basename(folder).startswith(b"."):
            deepest, depth = folder, level
    return deepest


def delivery_delays(tree, latency, probes):
    folder = deepest_folder(tree)
    watcher = Watcher(pelmora_watch(tree, latency))
    watcher.wait_for(lambda line: line == b"ready")
    delays = []
    for probe in range(probes):
        name = os.path.join(folder, b"bench-probe-%d" % probe)
        written = time.perf_counter()
        with open(name, "wb") as out:
            out.write(b"probe")
        when, _ = watcher.wait_for(lambda line: line.split(b" ", 2)[-1] == folder)
        delays.append(when - written)
        os.unlink(name)
        # Let the removal's own batch go by, so that every probe starts a fresh coalescing window.
        watcher.wait_for(lambda line: line.split(b" ", 2)[-1] == folder)
    watcher.stop()
    return delays


def main():
    parser = argparse.ArgumentParser(description="Benchmark the folder event stream.")
    parser.add_argument("--tree", default=common.DEFAULT_TREE)
    parser.add_argument("--rounds", type=int, default=11)
    parser.add_argument("--latency", type=float, default=1.0)
    parser.add_argument("--probes", type=int, default=9)
    args = parser.parse_args()
    if not shutil.which("inotifywait"):
        sys.exit("inotifywait is missing: apt-get install inotify-tools")
    tree = os.path.abspath(args.tree)
    common.build()
    common.ensure_tree(tree, [])

    folders = count_folders(tree)
    time_to_ready(tree)
    time_to_inotifywait(tree)
    ours, theirs, ratios = [], [], []
    for round_number in range(args.rounds):
        pair = [time_to_ready, time_to_inotifywait]
        if round_number % 2:
            pair.reverse()
        results = {f: f(tree) for f in pair}
        ours.append(results[time_to_ready])
        theirs.append(results[time_to_inotifywait])
        ratios.append(ours[-1] / theirs[-1])
    ratio = statistics.median(ratios)
    print("start to ready, %d folders: pelmora median %.1f ms, inotifywait -r median %.1f ms" %
          (folders, statistics.median(ours) * 1000, statistics.median(theirs) * 1000))
    print("per-round ratios: " + " ".join("%.3f" % r for r in ratios))
    print("median ratio pelmora/inotifywait: %.3f (target <= %.1f) %s" %
          (ratio, TARGET_START_RATIO, "PASS" if ratio <= TARGET_START_RATIO else "FAIL"))

    before, after, description = memory_per_folder(tree)
    print("memory: %d kB before start, %d kB after; %.0f bytes per watched folder" %
          (before, after, (after - before) * 1024.0 / folders))
    print("stream: " + description.decode(errors="replace").splitlines()[-1])

    delays = delivery_delays(tree, args.latency, args.probes)
    median_delay = statistics.median(delays)
    print("write-to-delivery delay, latency %.2f s: median %.0f ms (max %.0f ms); target <= %.0f ms %s" %
          (args.latency, median_delay * 1000, max(delays) * 1000, (args.latency + DELAY_ALLOWANCE) * 1000,
           "PASS" if median_delay <= args.latency + DELAY_ALLOWANCE else "FAIL"))
    return 0 if ratio <= TARGET_START_RATIO and median_delay <= args.latency + DELAY_ALLOWANCE else 1


if __name__ == "__main__":
    sys.exit(main())
