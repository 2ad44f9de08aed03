#!/usr/bin/env python3
"""Builds a repeatable imitation of a cloud-documents folder for the benchmarks.

    generate_tree.py DIR [--files N] [--folders M] [--seed S]

The same arguments always give the same tree, byte for byte: names, sizes, contents, permissions and
timestamps. That is what lets a copy or a restore made in one run be compared with one made in another.

N counts the ordinary files and M the folders below DIR (DIR itself excluded). On top of those the tree
holds ".DS_Store" files and a handful of symbolic links, as a real one does; the summary printed at the
end gives every figure.

Everything goes through the os module with bytes paths: names are raw bytes here, some of them are not
valid UTF-8 on purpose, and the bytes calls are also the fast ones.

DIR must be missing or empty. The only exception is a DIR produced earlier with the same arguments, which
is then reused as it is; the record of that lives in DIR + ".stamp", beside the tree rather than inside it
so that it never shows up in what the benchmarks count.
"""

import argparse
import bisect
import hashlib
import json
import os
import random
import stat
import sys
import time
import unicodedata

# Bumped whenever a change here alters the tree, so that stale trees are not reused.
GENERATOR_VERSION = 1

DEFAULT_FILES = 100_000
DEFAULT_FOLDERS = 5_000
DEFAULT_SEED = 1
MAX_DEPTH = 8  # the containers are at depth 1

# Timestamps fall within these two years so that they look like a user's documents, not like a build.
EPOCH_START = 1_672_531_200  # 2023-01-01T00:00:00Z
EPOCH_SPAN = 2 * 365 * 86_400

FILE_MODE = 0o644
FOLDER_MODE = 0o755

CONTAINERS = [
    "com~apple~CloudDocs",
    "com~apple~Pages",
    "com~apple~Numbers",
    "com~apple~Keynote",
    "com~apple~TextEdit",
    "com~apple~Preview",
    "com~apple~ScriptEditor2",
    "com~apple~shoebox",
    "iCloud~com~example~Notes",
    "iCloud~com~example~Sketchbook",
    "iCloud~com~example~Ledger",
    "iCloud~org~example~Reader",
    "iCloud~net~example~Outliner",
    "ABCDE12345~com~example~app",
    "57T9237FN3~net~example~Scanner",
    "6XH8K2ZQ4M~com~example~Journal",
    "F3LWYJ7GM7~com~example~Markdown",
    "K36BKF7T3D~com~example~Mindmap",
    "9J8Q3ZT2B6~io~example~Tasks",
    "QWERTY7890~de~example~Rechnungen",
    "2HCKV38EEC~com~example~Photos",
]

FOLDER_WORDS = [
    "Documents", "Projects", "Archive", "Invoices", "Receipts", "Taxes", "Photos", "Travel", "Work",
    "Personal", "Drafts", "Templates", "Exports", "Scans", "Family", "School", "Recipes", "Music",
    "Reports", "Contracts", "Meeting Notes", "Old Stuff", "To Sort", "Backups", "Screenshots",
    "Presentations", "Budget", "Clients", "Research", "Assets", "Attachments", "Inbox", "Shared",
    "Übersicht", "Kostenvoranschläge", "Fotos Sommer", "Privé", "Año Nuevo", "資料", "写真", "会議",
    "Проекты", "Εργασία", "Notes & Ideas", "2021", "2022", "2023", "2024", "Q1", "Q2", "Q3", "Q4",
]

HIDDEN_FOLDER_WORDS = [".Trash", ".thumbnails", ".cache", ".git", ".sync", ".assets", ".versions"]

FILE_STEMS = [
    "Document", "Notes", "Invoice", "Receipt", "Report", "Letter", "Budget", "Plan", "Summary",
    "Meeting Notes", "Draft", "Presentation", "Contract", "Checklist", "Ideas", "Outline", "Scan",
    "Screenshot", "IMG", "DSC", "Untitled", "Copy of Budget", "Final", "Final FINAL", "Todo",
    "Übersicht – März", "Kündigung", "Résumé", "Café Menü", "Señales", "議事録", "見積書", "旅行の写真",
    "Отчёт", "Σημειώσεις", "Lebenslauf", "Quittung", "Rechnung", "Angebot", "Précis",
]

# Extensions grouped by the kind of content written into them.
TEXT_EXTENSIONS = [".txt", ".md", ".csv", ".json", ".xml", ".html", ".rtf", ".log", ".plist", ".yaml"]
BINARY_EXTENSIONS = [
    ".pages", ".numbers", ".key", ".pdf", ".docx", ".xlsx", ".pptx", ".jpg", ".jpeg", ".png", ".HEIC",
    ".mov", ".mp4", ".m4a", ".zip", ".sqlite", ".bin", ".dat", ".psd", ".sketch",
]

HIDDEN_FILE_NAMES = [".localized", ".hidden", ".metadata", ".lock", ".index", ".sync-state", ".settings"]

# A few names whose bytes are not valid UTF-8, the way some old archives and other systems leave them.
INVALID_UTF8_NAMES = [
    b"caf\xe9.txt",
    b"\xff\xfe raw.bin",
    b"R\xe9sum\xe9 (Latin-1).doc",
    b"half \xe3\x81 kana.txt",
    b"\xc0\xafoverlong.dat",
    b"M\xe4rz Bericht.pdf",
]

# Sizes are drawn from this fixed mixture, so that only the seed decides them. The buckets are log-uniform
# within their bounds: most files are small, a fifth are tens of kilobytes, a few are hundreds of
# kilobytes and one in a thousand runs to megabytes. The mean is close to 15 kB, so the default tree holds
# about 1.5 GB.
SIZE_BUCKETS = [
    # (cumulative probability, lowest size, highest size)
    (0.08, 0, 0),
    (0.80, 1, 8 * 1024),
    (0.975, 8 * 1024, 96 * 1024),
    (0.999, 96 * 1024, 512 * 1024),
    (1.0, 1024 * 1024, 6 * 1024 * 1024),
]

DS_STORE_SIZES = [6148, 6148, 6148, 8196, 10244, 12292, 14340, 16388]
DS_STORE_SHARE = 0.45

BINARY_POOL_SIZE = 8 * 1024 * 1024
TEXT_POOL_SIZE = 1024 * 1024


class Chance:
    """Every draw goes through Random.random(), the one method whose sequence Python promises to keep for
    a given seed across versions; randrange, choice or gauss carry no such promise."""

    def __init__(self, seed):
        self._random = random.Random(seed).random

    def unit(self):
        return self._random()

    def below(self, n):
        return min(int(self._random() * n), n - 1)

    def between(self, low, high):
        return low + self.below(high - low + 1)

    def pick(self, items):
        return items[self.below(len(items))]

    def log_uniform(self, low, high):
        return min(high, int(low * (high / low) ** self._random()))

    def timestamp_ns(self):
        seconds = EPOCH_START + self.below(EPOCH_SPAN)
        return seconds * 1_000_000_000 + self.below(1_000_000) * 1_000


def draw_size(chance):
    roll = chance.unit()
    for cumulative, low, high in SIZE_BUCKETS:
        if roll < cumulative:
            return low if low == high else chance.log_uniform(low, high)
    return SIZE_BUCKETS[-1][2]


def make_pools(seed):
    binary = hashlib.shake_256(b"pelmora-tree-binary:%d" % seed).digest(BINARY_POOL_SIZE)
    chance = Chance(seed + 0x5EED)
    words = [w.encode() for w in FILE_STEMS + FOLDER_WORDS] + [
        b"the", b"and", b"of", b"to", b"a", b"in", b"is", b"for", b"on", b"with", b"total", b"amount",
        b"date", b"item", b"quantity", b"price", b"note", b"see", b"attached", b"regards",
    ]
    parts = []
    length = 0
    while length < TEXT_POOL_SIZE:
        word = chance.pick(words)
        separator = b"\n" if chance.unit() < 0.08 else b" "
        parts.append(word + separator)
        length += len(word) + 1
    text = b"".join(parts)[:TEXT_POOL_SIZE]
    return binary, text


class Builder:
    def __init__(self, root, files, folders, seed):
        self.root = os.fsencode(root)
        self.files = files
        self.folders = folders
        self.seed = seed
        self.chance = Chance(seed)
        self.binary_pool, self.text_pool = make_pools(seed)
        self.binary_view = memoryview(self.binary_pool)
        self.text_view = memoryview(self.text_pool)
        # Folder table: relative path (bytes), depth, names already used inside it.
        self.folder_paths = []
        self.folder_depths = []
        self.folder_names = []
        self.stats = {
            "files": 0,
            "folders": 0,
            "ds_store_files": 0,
            "symlinks": 0,
            "bytes_in_files": 0,
            "bytes_in_ds_store": 0,
            "max_depth": 0,
        }

    # ---- names -------------------------------------------------------------------------------------

    def unique_name(self, folder, name):
        """Same-named siblings get " 2", " 3"... before the extension, as a desktop does on a copy."""
        used = self.folder_names[folder]
        if name not in used:
            used.add(name)
            return name
        dot = name.rfind(b".")
        stem, ext = (name[:dot], name[dot:]) if dot > 0 else (name, b"")
        n = 2
        while True:
            candidate = b"%s %d%s" % (stem, n, ext)
            if candidate not in used:
                used.add(candidate)
                return candidate
            n += 1

    def folder_name(self):
        c = self.chance
        roll = c.unit()
        if roll < 0.04:
            return c.pick(HIDDEN_FOLDER_WORDS).encode()
        word = c.pick(FOLDER_WORDS)
        if roll < 0.10:
            # Names as a Mac keeps them: decomposed accents.
            word = unicodedata.normalize("NFD", word)
        if roll > 0.55:
            word = "%s %d" % (word, c.between(1, 400))
        return word.encode()

    def file_name(self):
        c = self.chance
        roll = c.unit()
        if roll < 0.015:
            return c.pick(HIDDEN_FILE_NAMES).encode() + (b"" if c.unit() < 0.5 else b"-%d" % c.below(100)), False
        text = c.unit() < 0.3
        ext = c.pick(TEXT_EXTENSIONS if text else BINARY_EXTENSIONS)
        stem = c.pick(FILE_STEMS)
        if stem in ("IMG", "DSC"):
            name = "%s_%04d%s" % (stem, c.below(10000), ext)
        elif roll < 0.35:
            name = "%s %d%s" % (stem, c.between(1, 999), ext)
        elif roll < 0.55:
            name = "%s %04d-%02d-%02d%s" % (stem, c.between(2015, 2024), c.between(1, 12), c.between(1, 28), ext)
        elif roll < 0.60:
            name = unicodedata.normalize("NFD", stem) + ext
        else:
            name = stem + ext
        return name.encode(), text

    # ---- folders -----------------------------------------------------------------------------------

    def add_folder(self, parent, name):
        parent_path = self.folder_paths[parent] if parent >= 0 else b""
        name = self.unique_name(parent, name) if parent >= 0 else name
        path = parent_path + b"/" + name if parent_path else name
        depth = self.folder_depths[parent] + 1 if parent >= 0 else 1
        os.mkdir(os.path.join(self.root, path), FOLDER_MODE)
        self.folder_paths.append(path)
        self.folder_depths.append(depth)
        self.folder_names.append(set())
        self.stats["folders"] += 1
        self.stats["max_depth"] = max(self.stats["max_depth"], depth)
        return len(self.folder_paths) - 1

    def build_folders(self):
        c = self.chance
        containers = min(len(CONTAINERS), max(1, self.folders // 25))
        for i in range(containers):
            self.add_folder(-1, CONTAINERS[i].encode())
        # Apps keep their files under "Documents" inside their container; the general one does not.
        for i in range(1, containers):
            if self.stats["folders"] < self.folders:
                self.add_folder(i, b"Documents")
        # One chain down to the deepest level, so the depth limit is always exercised.
        parent = 0
        while self.folder_depths[parent] < MAX_DEPTH and self.stats["folders"] < self.folders:
            parent = self.add_folder(parent, b"Level %d" % (self.folder_depths[parent] + 1))
        # A folder that carries the clutter's name: it is not clutter, its contents count.
        clutter_named_folder = None
        if self.stats["folders"] < self.folders:
            clutter_named_folder = self.add_folder(0, b".DS_Store")
        # The rest hangs off random existing folders, the older ones gathering more, as real trees do.
        while self.stats["folders"] < self.folders:
            candidate = c.below(len(self.folder_paths))
            if self.folder_depths[candidate] < MAX_DEPTH:
                self.add_folder(candidate, self.folder_name())
        return clutter_named_folder

    # ---- files -------------------------------------------------------------------------------------

    def write_file(self, folder, name, size, pool_view, header, mtime_ns):
        path = os.path.join(self.root, self.folder_paths[folder], name)
        fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC, FILE_MODE)
        try:
            if size:
                pool_size = len(pool_view)
                start = self.chance.below(max(1, pool_size - size)) if size < pool_size else 0
                # The header keeps two files of the same size from being identical.
                first = header[:size]
                written = os.write(fd, first)
                remaining = size - written
                offset = start + written
                while remaining:
                    if offset >= pool_size:
                        offset = 0
                    chunk = pool_view[offset : offset + min(remaining, pool_size - offset)]
                    n = os.write(fd, chunk)
                    remaining -= n
                    offset += n
        finally:
            os.close(fd)
        os.utime(path, ns=(mtime_ns, mtime_ns))

    def build_files(self, clutter_named_folder):
        c = self.chance
        folder_count = len(self.folder_paths)
        # Uneven occupancy: a few folders hold hundreds of files, many hold a handful, some none.
        weights = []
        for i in range(folder_count):
            roll = c.unit()
            weights.append(0.0 if roll < 0.08 else (1.0 / (1.0 - roll)) ** 0.5)
        cumulative = []
        total = 0.0
        for w in weights:
            total += w
            cumulative.append(total)
        placements = [0] * folder_count
        for _ in range(self.files):
            placements[min(folder_count - 1, bisect.bisect_right(cumulative, c.unit() * total))] += 1
        # The folder named like the clutter must hold real files, or it would prove nothing.
        if clutter_named_folder is not None:
            while placements[clutter_named_folder] < min(3, self.files):
                placements[placements.index(max(placements))] -= 1
                placements[clutter_named_folder] += 1
        # The names that are not valid UTF-8 are spread evenly through the files, however few there are.
        spacing = max(1, self.files // len(INVALID_UTF8_NAMES))
        invalid = {k * spacing + spacing // 2: name for k, name in enumerate(INVALID_UTF8_NAMES)}
        index = 0
        for folder in range(folder_count):
            for _ in range(placements[folder]):
                if index in invalid:
                    name, text = invalid[index], False
                else:
                    name, text = self.file_name()
                name = self.unique_name(folder, name)
                size = draw_size(c)
                if text and size > TEXT_POOL_SIZE:
                    text = False
                header = b"pelmora-tree file %d seed %d\n" % (index, self.seed)
                self.write_file(folder, name, size, self.text_view if text else self.binary_view, header,
                                c.timestamp_ns())
                self.stats["files"] += 1
                self.stats["bytes_in_files"] += size
                index += 1
        # Clutter in many folders, including inside the folder named like it.
        for folder in range(folder_count):
            if folder == clutter_named_folder or c.unit() < DS_STORE_SHARE:
                self.add_ds_store(folder)

    def add_ds_store(self, folder):
        c = self.chance
        size = c.pick(DS_STORE_SIZES)
        name = self.unique_name(folder, b".DS_Store")
        if name != b".DS_Store":
            return
        self.write_file(folder, name, size, self.binary_view, b"\x00\x00\x00\x01Bud1\x00\x00", c.timestamp_ns())
        self.stats["ds_store_files"] += 1
        self.stats["bytes_in_ds_store"] += size

    # ---- links -------------------------------------------------------------------------------------

    def relative_target(self, from_folder, to_path):
        from_parts = self.folder_paths[from_folder].split(b"/")
        return b"/".join([b".."] * len(from_parts) + [to_path])

    def add_link(self, folder, name, target):
        name = self.unique_name(folder, name)
        path = os.path.join(self.root, self.folder_paths[folder], name)
        os.symlink(target, path)
        mtime = self.chance.timestamp_ns()
        os.utime(path, ns=(mtime, mtime), follow_symlinks=False)
        self.stats["symlinks"] += 1

    def some_file_in(self, folder):
        for name in sorted(self.folder_names[folder]):
            full = os.path.join(self.root, self.folder_paths[folder], name)
            st = os.lstat(full)
            if stat.S_ISREG(st.st_mode) and name != b".DS_Store":
                return self.folder_paths[folder] + b"/" + name
        return None

    def build_links(self):
        c = self.chance
        folder_count = len(self.folder_paths)
        links = max(4, self.files // 500)
        made = 0
        attempts = 0
        while made < links and attempts < links * 20:
            attempts += 1
            where = c.below(folder_count)
            to = c.below(folder_count)
            if c.unit() < 0.6:
                target = self.some_file_in(to)
                if target is None:
                    continue
                self.add_link(where, b"Alias of " + target.rsplit(b"/", 1)[1], self.relative_target(where, target))
            else:
                self.add_link(where, b"Link to " + self.folder_paths[to].rsplit(b"/", 1)[-1],
                              self.relative_target(where, self.folder_paths[to]))
            made += 1
        # The awkward ones, in the general container where anyone would look first.
        self.add_link(0, b"Dangling link.txt", b"no such file here.txt")
        self.add_link(0, b"Outside the tree", b"/etc")
        self.add_link(0, b"Outside file", b"/etc/hostname")
        self.add_link(0, b"Loop to container", b".")
        if folder_count > 1:
            deep = max(range(folder_count), key=lambda i: (self.folder_depths[i], -i))
            self.add_link(deep, b"Up to the top", self.relative_target(deep, self.folder_paths[0]))

    # ---- timestamps --------------------------------------------------------------------------------

    def stamp_folders(self):
        # Last, deepest first: every entry created inside a folder moves its time.
        c = self.chance
        order = sorted(range(len(self.folder_paths)), key=lambda i: -self.folder_depths[i])
        stamps = [c.timestamp_ns() for _ in range(len(self.folder_paths))]
        for i in order:
            os.utime(os.path.join(self.root, self.folder_paths[i]), ns=(stamps[i], stamps[i]))
        root_time = EPOCH_START * 1_000_000_000 + EPOCH_SPAN * 1_000_000_000
        os.utime(self.root, ns=(root_time, root_time))

    def build(self):
        clutter_named = self.build_folders()
        self.build_files(clutter_named)
        self.build_links()
        self.stamp_folders()
        return self.stats


def parameters(args):
    return {"generator_version": GENERATOR_VERSION, "files": args.files, "folders": args.folders,
            "seed": args.seed}


def stamp_path(directory):
    return os.fsencode(os.path.normpath(os.path.abspath(directory))) + b".stamp"


def main():
    parser = argparse.ArgumentParser(description="Generate a repeatable cloud-documents tree.")
    parser.add_argument("dir")
    parser.add_argument("--files", type=int, default=DEFAULT_FILES, help="ordinary files (default %(default)s)")
    parser.add_argument("--folders", type=int, default=DEFAULT_FOLDERS, help="folders (default %(default)s)")
    parser.add_argument("--seed", type=int, default=DEFAULT_SEED, help="default %(default)s")
    args = parser.parse_args()
    if args.files < 0 or args.folders < 1:
        parser.error("--files must be >= 0 and --folders >= 1")

    root = os.fsencode(os.path.normpath(os.path.abspath(args.dir)))
    stamp = stamp_path(args.dir)
    wanted = parameters(args)

    if os.path.isdir(root) and os.listdir(root):
        try:
            with open(stamp, "rb") as f:
                recorded = json.load(f)
        except (OSError, ValueError):
            recorded = None
        if recorded and recorded.get("parameters") == wanted and recorded.get("complete"):
            print("reusing %s (generated earlier with the same parameters)" % os.fsdecode(root))
            print(json.dumps(recorded["summary"], sort_keys=True))
            return 0
        print("refusing to write into %s: it is not empty and was not generated with these parameters"
              % os.fsdecode(root), file=sys.stderr)
        return 1
    os.makedirs(root, exist_ok=True)

    # Permissions are part of what must come out the same.
    os.umask(0o022)
    started = time.monotonic()
    summary = Builder(root, args.files, args.folders, args.seed).build()
    elapsed = time.monotonic() - started
    summary["total_bytes"] = summary["bytes_in_files"] + summary["bytes_in_ds_store"]

    temporary = stamp + b".tmp"
    with open(temporary, "w") as f:
        json.dump({"parameters": wanted, "complete": True, "summary": summary}, f, sort_keys=True, indent=1)
    os.replace(temporary, stamp)

    print("generated %s in %.1f s" % (os.fsdecode(root), elapsed))
    print(json.dumps(summary, sort_keys=True))
    return 0


if __name__ == "__main__":
    sys.exit(main())
