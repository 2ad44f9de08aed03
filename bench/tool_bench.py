#!/usr/bin/env python3
"""Times the command-line tool: `pelmora backup` against `pelmora-bench copy`, and `pelmora compare`
against rsync's dry run.

    tool_bench.py [--rounds N] [--settle S]

Both use the generated 100,000-file tree. Each round runs the two programs one after the other, the
order changing every round, from the same start as copy_bench.py gives its copies (the tree read once,
everything synced, the memory the copy fills touched once); the median of the per-round ratios counts.

- backup: `pelmora backup` in a fresh home whose iCloud folder is a link to the tree, timed as a whole
  process (the counting pass, the space checks, the copy and the record), against the wall time of
  `pelmora-bench copy` of the tree (the copy alone). Target: within 1.05x.
- compare: with one backup made, `pelmora compare latest` of the unchanged tree against
  `rsync -an --delete --itemize-changes TREE/ BACKUP/`, both whole processes. Target: <= 0.6x. Both
  must find nothing to list (rsync lists the ".DS_Store" items the backup leaves out on purpose, and the
  times of the backup folder itself, which is made before the copy).
"""

import argparse
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time

import copy_bench
import measure_bench as common

TOOL_BINARY = os.path.join(common.BUILD_DIR, "pelmora")
TARGET_BACKUP = 1.05
TARGET_COMPARE = 0.6


def fresh_home(tree):
    """A home of three path components (a deeper one would count as a sandbox's), with the backups beside
    the tree, on its file system."""
    home = tempfile.mkdtemp(prefix="pelmora-tool-home-", dir="/tmp")
    os.makedirs(os.path.join(home, "Library"))
    os.symlink(os.path.abspath(tree), os.path.join(home, "Library", "Mobile Documents"))
    data = tempfile.mkdtemp(prefix="tool-data-", dir=common.OUT_DIR)
    env = dict(os.environ, HOME=home, XDG_CONFIG_HOME=os.path.join(home, ".config"), XDG_DATA_HOME=data)
    return (home, data), env


def timed(argv, tree, size, env=None):
    copy_bench.warm(tree)
    copy_bench.sync()
    copy_bench.prime_memory(size + (1 << 30))
    wall, _, stdout, stderr = common.run(argv, env)
    copy_bench.sync()
    return wall, stdout, stderr


def backup_rounds(tree, size, rounds, settle):
    ratios = []
    for index in range(rounds):
        home, env = fresh_home(tree)
        copy = copy_bench.fresh_destination("bench-copy")
        times = {}
        for name in (["tool", "bench"] if index % 2 == 0 else ["bench", "tool"]):
            if name == "tool":
                times[name] = timed([TOOL_BINARY, "backup"], tree, size, env)[0]
            else:
                times[name] = timed(copy_bench.pelmora_argv(tree, copy), tree, size)[0]
        ratios.append(times["tool"] / times["bench"])
        print("  backup round %d: pelmora backup %.3f s, pelmora-bench copy %.3f s, ratio %.3f"
              % (index + 1, times["tool"], times["bench"], ratios[-1]), flush=True)
        for folder in home:
            copy_bench.remove(folder)
        copy_bench.remove(copy)
        copy_bench.sync()
        time.sleep(settle)
    return ratios


def compare_rounds(tree, size, rounds):
    home, env = fresh_home(tree)
    common.run([TOOL_BINARY, "backup"], env)
    listed = subprocess.run([TOOL_BINARY, "list", "--json"], env=env, stdout=subprocess.PIPE, check=True)
    backup = json.loads(listed.stdout)[0]["folder"]
    ratios = []
    for index in range(rounds):
        times = {}
        for name in (["tool", "rsync"] if index % 2 == 0 else ["rsync", "tool"]):
            if name == "tool":
                times[name], stdout, _ = timed([TOOL_BINARY, "compare", "latest"], tree, size, env)
                if stdout:
                    sys.exit("pelmora compare listed changes in an unchanged tree: %r" % stdout[:200])
            else:
                times[name], stdout, _ = timed(["rsync", "-an", "--delete", "--itemize-changes", tree + "/",
                                                backup + "/"], tree, size)
                # The backup folder is made before the copy and keeps its own times, which no restore
                # touches: rsync's line for the root itself is no difference either.
                unexpected = [line for line in stdout.split(b"\n")
                              if line and not line.endswith(b" ./")
                              and not copy_bench.has_clutter(line.split(b" ", 1)[-1].rstrip(b"/"))]
                if unexpected:
                    sys.exit("rsync listed changes in an unchanged tree: %r" % unexpected[:5])
        ratios.append(times["tool"] / times["rsync"])
        print("  compare round %d: pelmora compare %.3f s, rsync -an --delete --itemize-changes %.3f s, "
              "ratio %.3f" % (index + 1, times["tool"], times["rsync"], ratios[-1]), flush=True)
    for folder in home:
        copy_bench.remove(folder)
    return ratios


def main():
    parser = argparse.ArgumentParser(description="Benchmark the command-line tool.")
    parser.add_argument("--rounds", type=int, default=5, help="rounds of each (default %(default)s)")
    parser.add_argument("--skip-backup", dest="rounds_backup", action="store_false",
                        help="time only the compare")
    parser.add_argument("--settle", type=float, default=30,
                        help="seconds to wait after deleting a backup of the tree (default %(default)s)")
    args = parser.parse_args()
    common.build()
    subprocess.run(["cmake", "--build", common.BUILD_DIR, "--target", "pelmora-cli", "-j2"], check=True,
                   stdout=subprocess.DEVNULL)
    tree = common.DEFAULT_TREE
    common.ensure_tree(tree, [])
    size = copy_bench.tree_bytes(tree)
    backup = statistics.median(backup_rounds(tree, size, args.rounds, args.settle)) if args.rounds_backup else 0.0
    compare = statistics.median(compare_rounds(tree, size, args.rounds))
    ok = True
    checks = [("pelmora compare / rsync -an --delete --itemize-changes", compare, TARGET_COMPARE)]
    if args.rounds_backup:
        checks.insert(0, ("pelmora backup / pelmora-bench copy", backup, TARGET_BACKUP))
    for label, value, target in checks:
        print("%s: median %.3f (target <= %.2f) %s" % (label, value, target, "PASS" if value <= target else "FAIL"))
        ok = ok and value <= target
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
