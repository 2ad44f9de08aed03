#!/usr/bin/env python3
"""What the test suites cover of the program, and what each test covers that no other does.

Runs every CTest entry of a coverage build (the end-to-end run's program included) with counters of its own
(GCOV_PREFIX), reads them with gcov, and prints the program's lines and branches covered, per folder.
With --alone it also lists, per test, how many lines and branches no other test reaches: a test that
reaches nothing alone checks only what others reach too, which makes it a candidate for folding, never
proof that it can go (coverage says what ran, not what was checked).
With --save FILE it keeps the per-test sets, and with --compare FILE it names every line and branch the
saved run covered that this one does not.

Usage: scripts/coverage.py BUILD_DIR [--tests REGEX] [--alone] [--save FILE] [--compare FILE] [--jobs N]
(scripts/coverage configures and builds BUILD_DIR first.)
"""
import argparse
import collections
import concurrent.futures
import json
import os
import pickle
import re
import shutil
import subprocess
import sys
import tempfile

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
FOLDERS = ["Helpers", "platform", "engine", "store", "watch", "operations", "ui", "app", "cli"]
PROGRAM = tuple(os.path.join(SOURCE, folder) + "/" for folder in FOLDERS)


def ctest_entries(build, pattern):
    listing = json.loads(subprocess.check_output(["ctest", "--show-only=json-v1"], cwd=build))
    for test in listing["tests"]:
        if pattern and not re.search(pattern, test["name"]):
            continue
        properties = {p["name"]: p["value"] for p in test.get("properties", [])}
        yield (test["name"], test["command"], properties.get("WORKING_DIRECTORY", build),
               properties.get("ENVIRONMENT", []))


def notes_files(build):
    found = set()
    for folder, _, names in os.walk(build):
        found.update(os.path.join(folder, name)[:-5] for name in names if name.endswith(".gcno"))
    return found


def read_counters(prefix, notes):
    """The program's covered lines and branches from the counters a test wrote under `prefix`."""
    counters = []
    for folder, _, names in os.walk(prefix):
        for name in names:
            path = os.path.join(folder, name)
            original = path[len(prefix):-5]
            if name.endswith(".gcda") and original in notes:
                os.symlink(original + ".gcno", path[:-5] + ".gcno")
                counters.append(path)
    lines, branches = set(), set()
    for start in range(0, len(counters), 40):
        output = subprocess.run(["gcov", "--json-format", "--stdout", "--branch-probabilities"] + counters[start:start + 40],
                                cwd=prefix, capture_output=True, text=True).stdout
        for document in output.splitlines():
            if not document.startswith("{"):
                continue
            report = json.loads(document)
            for source in report.get("files", []):
                path = os.path.normpath(os.path.join(report.get("current_working_directory", ""), source["file"]))
                if not path.startswith(PROGRAM):
                    continue
                relative = os.path.relpath(path, SOURCE)
                for line in source["lines"]:
                    if line["count"] > 0:
                        lines.add((relative, line["line_number"]))
                    for index, branch in enumerate(line.get("branches", [])):
                        if branch["count"] > 0:
                            branches.add((relative, line["line_number"], index))
    return lines, branches


def run_one(entry, scratch, notes):
    name, command, directory, environment = entry
    prefix = tempfile.mkdtemp(dir=scratch)
    env = dict(os.environ, GCOV_PREFIX=prefix, GCOV_PREFIX_STRIP="0", QT_QPA_PLATFORM="offscreen")
    env.update(variable.split("=", 1) for variable in environment)
    status = subprocess.run(command, cwd=directory, env=env, capture_output=True, timeout=900).returncode
    lines, branches = read_counters(prefix, notes)
    shutil.rmtree(prefix, ignore_errors=True)
    return name, status, lines, branches


def summarise(results):
    lines = set().union(*(r[2] for r in results)) if results else set()
    branches = set().union(*(r[3] for r in results)) if results else set()
    print(f"{len(results)} tests, {sum(1 for r in results if r[1] != 0)} failed")
    per_folder = collections.Counter(path.split("/")[0] for path, _ in lines)
    branch_folder = collections.Counter(path.split("/")[0] for path, _, _ in branches)
    for folder in FOLDERS:
        print(f"  {folder:<11} {per_folder[folder]:6d} lines {branch_folder[folder]:6d} branches covered")
    print(f"  {'all':<11} {len(lines):6d} lines {len(branches):6d} branches covered")
    return lines, branches


def print_alone(results):
    line_count = collections.Counter(line for r in results for line in r[2])
    branch_count = collections.Counter(branch for r in results for branch in r[3])
    rows = sorted((sum(line_count[x] == 1 for x in r[2]), sum(branch_count[x] == 1 for x in r[3]), r[0])
                  for r in results)
    print("lines and branches each test alone covers:")
    for alone_lines, alone_branches, name in rows:
        print(f"  {alone_lines:5d} {alone_branches:5d}  {name}")


def compare(saved_path, lines, branches):
    with open(saved_path, "rb") as saved:
        before = pickle.load(saved)
    lost_lines = sorted(set().union(*(r[2] for r in before)) - lines)
    lost_branches = sorted(set().union(*(r[3] for r in before)) - branches)
    print(f"covered before but not now: {len(lost_lines)} lines, {len(lost_branches)} branches")
    for path, number in lost_lines:
        print(f"  line {path}:{number}")
    for path, number, index in lost_branches:
        print(f"  branch {path}:{number} #{index}")
    return not lost_lines and not lost_branches


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build")
    parser.add_argument("--tests", default="")
    parser.add_argument("--alone", action="store_true")
    parser.add_argument("--save")
    parser.add_argument("--compare")
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    options = parser.parse_args()
    build = os.path.abspath(options.build)
    notes = notes_files(build)
    if not notes:
        sys.exit(f"{build} holds no coverage notes: build it with scripts/coverage")
    scratch = tempfile.mkdtemp(prefix="pelmora-coverage-")
    try:
        with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
            results = list(pool.map(lambda entry: run_one(entry, scratch, notes),
                                    ctest_entries(build, options.tests)))
    finally:
        shutil.rmtree(scratch, ignore_errors=True)
    lines, branches = summarise(results)
    if options.alone:
        print_alone(results)
    if options.save:
        with open(options.save, "wb") as saved:
            pickle.dump(results, saved)
    kept = compare(options.compare, lines, branches) if options.compare else True
    return 0 if kept and all(r[1] == 0 for r in results) else 1


if __name__ == "__main__":
    sys.exit(main())
