#!/usr/bin/env python3
"""Fails when an include points up the layers, between two folders of one level, into Qt from a Qt-free
folder, or between two classes both ways. Usage: check_layers.py SOURCE_ROOT"""
import os
import re
import sys

# Lowest first; folders of one level are peers and do not include each other.
LEVEL = {'Helpers': 0, 'platform': 1, 'engine': 2, 'store': 2, 'watch': 2, 'operations': 3, 'ui': 4, 'app': 5, 'cli': 5}
QT_FREE = {'Helpers', 'engine'}
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')


def sources(root):
    for folder in LEVEL:
        for directory, _, names in os.walk(os.path.join(root, folder)):
            for name in names:
                if name.endswith(('.h', '.cpp')):
                    path = os.path.join(directory, name)
                    yield os.path.relpath(path, root), path


def includes(path):
    with open(path, encoding='utf-8', errors='replace') as f:
        for line in f:
            match = INCLUDE.match(line)
            if match:
                yield match.group(1), match.group(2)


def resolve(file, target):
    """The included file's path from the root, for the program's own headers; None for others."""
    sibling = os.path.normpath(os.path.join(os.path.dirname(file), target))
    return sibling if target.split('/')[0] not in LEVEL else target


def main(root):
    faults, graph = [], {}
    for file, path in sources(root):
        folder = file.split('/')[0]
        for bracket, target in includes(path):
            if bracket == '<':
                if folder in QT_FREE and re.match(r'Q[A-Za-z]*$|Qt', target):
                    faults.append(f'{file}: Qt header <{target}> in a Qt-free folder')
                continue
            if target.startswith('ui_'):
                continue  # generated from resources/*.ui
            included = resolve(file, target)
            to = included.split('/')[0]
            if to in LEVEL and to != folder and LEVEL[to] >= LEVEL[folder]:
                faults.append(f'{file}: includes "{target}", which is not below {folder}/')
            graph.setdefault(os.path.splitext(file)[0], set()).add(os.path.splitext(included)[0])
    faults += cycles(graph)
    for fault in faults:
        print(fault)
    print(f'{len(faults)} include faults')
    return 1 if faults else 0


def cycles(graph):
    """Classes (a header with its source file) that include each other."""
    return [f'{a} and {b} include each other' for a in sorted(graph) for b in sorted(graph[a])
            if a < b and a in graph.get(b, ())]


if __name__ == '__main__':
    sys.exit(main(sys.argv[1] if len(sys.argv) > 1 else '.'))
