#!/usr/bin/env python3
"""End-to-end test of the real program: it runs build/Pelmora in its own Xvfb server with a temporary home
and drives it the way a person would, with X key presses and mouse clicks (xdotool), while checking the
files on disk after every step and taking a screenshot of every window it works with.

Steps: back up twice, open Get Info on the first backup, restore the first backup over a changed iCloud
folder, delete the second backup, quit with Ctrl+Q.

Exit status: 0 passed, 1 failed (with a message saying what and where), 77 skipped (no Xvfb, xdotool or
xwd on this machine). Python 3 standard library only; the PNG writer is the one scripts/screenshot.py has.

    tests/e2e/run_e2e.py [--program build/Pelmora] [--output DIR] [--save-docs-screenshots]
"""

import argparse
import datetime
import hashlib
import json
import os
import re
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time
import xml.etree.ElementTree as ElementTree

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(ROOT, "scripts"))
sys.dont_write_bytecode = True  # no __pycache__ in the checkout
import screenshot  # noqa: E402  (the XWD to PNG converter shared with scripts/screenshot.py)

SKIPPED = 77
POLL_INTERVAL = 0.05
TIMEOUT = 20.0
# Only screenshots wait this long after a window appears, so that it has painted; outcomes are polled.
SETTLE = 0.4


class Failure(Exception):
    pass


def log(message):
    print("e2e: " + message, flush=True)


def wait_for(what, probe, timeout=TIMEOUT):
    """Calls probe every POLL_INTERVAL seconds until it returns something true, and returns that."""
    deadline = time.monotonic() + timeout
    while True:
        value = probe()
        if value:
            return value
        if time.monotonic() > deadline:
            raise Failure("timed out after %.0f s waiting for %s" % (timeout, what))
        time.sleep(POLL_INTERVAL)


def english_text(key):
    """The English text of a key of the program's string table, so that window titles are not copied here."""
    table = ElementTree.parse(os.path.join(ROOT, "resources", "strings", "pelmora_en.ts"))
    for message in table.iter("message"):
        if message.findtext("source") == key:
            return message.findtext("translation")
    raise Failure("the English string table has no key %r" % key)


# --- Window dumps -------------------------------------------------------------------------------------

class Image:
    """The pixels of a 32-bit ZPixmap XWD dump, read as (r, g, b)."""

    def __init__(self, data):
        if len(data) < 100:
            raise Failure("the window dump is empty")
        header = struct.unpack(">25I", data[:100])
        header_size, self.width, self.height = header[0], header[4], header[5]
        self.bits_per_pixel, self.bytes_per_line, ncolors = header[11], header[12], header[19]
        self.byte_order = header[7]
        if self.bits_per_pixel != 32:
            raise Failure("unexpected window dump with %d bits per pixel" % self.bits_per_pixel)
        self.pixels = memoryview(data)[header_size + ncolors * 12:]
        if len(self.pixels) < self.height * self.bytes_per_line:
            raise Failure("the window dump is truncated")

    def pixel(self, x, y):
        offset = y * self.bytes_per_line + 4 * x
        p = self.pixels[offset:offset + 4]
        return (p[2], p[1], p[0]) if self.byte_order == 0 else (p[1], p[2], p[3])

    def colour_count(self, limit=64):
        """How many different colours a grid over the image holds (counting stops at limit)."""
        seen = set()
        for y in range(0, self.height, max(1, self.height // 60)):
            for x in range(0, self.width, max(1, self.width // 60)):
                seen.add(self.pixel(x, y))
                if len(seen) >= limit:
                    return len(seen)
        return len(seen)


def is_grey(colour, tolerance=8):
    return max(colour) - min(colour) <= tolerance


def is_saturated(colour):
    return max(colour) - min(colour) > 60


def close_to(a, b, tolerance=2):
    return all(abs(p - q) <= tolerance for p, q in zip(a, b))


# --- The session --------------------------------------------------------------------------------------

class Session:
    def __init__(self, program, output, docs):
        self.program_path = program
        self.output = output
        self.docs = docs
        self.xvfb = None
        self.xvfb_log = None
        self.program = None
        self.program_log = None
        self.home = None
        self.display = None
        self.env = None
        self.main = None  # the main window's X id
        self.row_height = None  # learnt from the first row selected
        self.use_activate = True
        self.shots = 0
        self.step = "starting"

    # --- Processes

    def start_xvfb(self):
        self.xvfb_log = open(os.path.join(self.output, "xvfb.log"), "wb")
        first = 100 + os.getpid() % 400
        for number in range(first, first + 60):
            if os.path.exists("/tmp/.X%d-lock" % number) or os.path.exists("/tmp/.X11-unix/X%d" % number):
                continue
            display = ":%d" % number
            xvfb = subprocess.Popen(["Xvfb", display, "-screen", "0", "1280x900x24", "-nolisten", "tcp"],
                                    stdout=self.xvfb_log, stderr=self.xvfb_log, start_new_session=True)
            env = dict(os.environ, DISPLAY=display)
            deadline = time.monotonic() + TIMEOUT
            while xvfb.poll() is None and time.monotonic() < deadline:
                ready = subprocess.run(["xdotool", "getdisplaygeometry"], env=env, stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL).returncode == 0
                if ready:
                    self.xvfb, self.display = xvfb, display
                    log("Xvfb runs on display %s" % display)
                    return
                time.sleep(POLL_INTERVAL)
            # Someone else took the number between the check and the start, or the server never answered.
            stop(xvfb)
        raise Failure("could not start Xvfb on any display from :%d (see %s)" % (first, self.xvfb_log.name))

    def make_home(self):
        self.home = tempfile.mkdtemp(prefix="pelmora-", dir="/tmp")
        # The program counts a home deeper than three path components as a sandbox and would ask for it.
        if len(self.home.strip("/").split("/")) != 2:
            raise Failure("the temporary home %s is not /tmp/<name>" % self.home)
        self.icloud = os.path.join(self.home, "Library", "Mobile Documents")
        self.drive = os.path.join(self.icloud, "com~apple~CloudDocs")
        files = {
            "com~apple~CloudDocs/Notes.txt": b"Shopping: bread, milk, apples\n",
            "com~apple~CloudDocs/.hidden-settings": b"colour=blue\n",
            "com~apple~CloudDocs/Projects/Budget.csv": b"month,amount\njan,120\nfeb,95\n",
            "com~apple~CloudDocs/Projects/Plans/2027/Draft.md": "# Plan f\u00fcr 2027\n".encode() * 40,
            "com~apple~CloudDocs/Photos/picture.raw": bytes(range(256)) * 400,
            "iCloud~com~example~Notes/Documents/note-1.txt": b"first note\n",
            "iCloud~com~example~Notes/Documents/note-2.txt": b"second note\n" * 300,
            "ABCDE12345~com~example~Sketch/Documents/sketch.dat": os.urandom(70000),
        }
        for relative, content in files.items():
            path = os.path.join(self.icloud, relative)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "wb") as out:
                out.write(content)
        os.makedirs(os.path.join(self.icloud, "iCloud~com~example~Empty"))
        if self.docs:
            # Enough real data that the copy takes a moment and the progress window can be caught with
            # its bar part way: sparse or empty files would be copied in no time.
            block = os.urandom(1 << 20)
            bulk = os.path.join(self.drive, "Archive")
            os.makedirs(bulk)
            for n in range(1200):
                with open(os.path.join(bulk, "part-%04d.bin" % n), "wb") as out:
                    out.write(n.to_bytes(4, "big") + block[4:256 * 1024])
        for folder in ("tmp", "runtime", ".config", ".local/share", ".cache"):
            os.makedirs(os.path.join(self.home, folder), mode=0o700, exist_ok=True)
        self.config = os.path.join(self.home, ".config")
        self.prefs = os.path.join(self.config, "Pelmora", "Pelmora.json")
        self.backup_root = os.path.join(self.home, ".local", "share", "Pelmora")

    def start_program(self):
        env = {key: value for key, value in os.environ.items()
               if key not in ("QT_QPA_PLATFORM", "WAYLAND_DISPLAY", "SESSION_MANAGER", "DESKTOP_SESSION",
                              "XDG_CURRENT_DESKTOP", "QT_SCALE_FACTOR", "QT_SCREEN_SCALE_FACTORS")}
        env.update(HOME=self.home, XDG_CONFIG_HOME=self.config,
                   XDG_DATA_HOME=os.path.join(self.home, ".local", "share"),
                   XDG_CACHE_HOME=os.path.join(self.home, ".cache"),
                   XDG_RUNTIME_DIR=os.path.join(self.home, "runtime"),
                   # The single-instance socket lives in the temporary folder: a Pelmora the user has open
                   # would otherwise take this start over and the test would drive the wrong program.
                   TMPDIR=os.path.join(self.home, "tmp"),
                   # No session bus of the user's: nothing here may reach the desktop.
                   DBUS_SESSION_BUS_ADDRESS="unix:path=" + os.path.join(self.home, "runtime", "no-bus"),
                   DISPLAY=self.display, LANGUAGE="en", LANG="en_GB.UTF-8")
        env.pop("LC_ALL", None)
        env.pop("LC_MESSAGES", None)
        self.env = env
        self.program_log = open(os.path.join(self.output, "pelmora.log"), "wb")
        self.program = subprocess.Popen([self.program_path], env=env, stdout=self.program_log,
                                        stderr=subprocess.STDOUT, cwd=self.home, start_new_session=True)
        log("started %s (pid %d) with HOME=%s" % (self.program_path, self.program.pid, self.home))

    def cleanup(self):
        if self.program is not None:
            stop(self.program)
        if self.xvfb is not None:
            stop(self.xvfb)
        for handle in (self.program_log, self.xvfb_log):
            if handle:
                handle.close()
        if self.home:
            shutil.rmtree(self.home, ignore_errors=True)

    def check_running(self):
        if self.program.poll() is not None:
            raise Failure("Pelmora exited unexpectedly with status %d" % self.program.returncode)

    # --- X

    def xdo(self, *arguments, check=True, timeout=TIMEOUT):
        try:
            result = subprocess.run(["xdotool"] + [str(a) for a in arguments], env=self.env,
                                    stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=timeout)
        except subprocess.TimeoutExpired:
            raise Failure("xdotool %s did not finish within %.0f s" % (" ".join(map(str, arguments)), timeout))
        if check and result.returncode != 0:
            raise Failure("xdotool %s failed: %s" % (" ".join(map(str, arguments)),
                                                       result.stderr.decode(errors="replace").strip()))
        return result

    def window_name(self, window):
        result = self.xdo("getwindowname", window, check=False)
        return result.stdout.decode(errors="replace").rstrip("\n") if result.returncode == 0 else None

    def visible_windows(self, title):
        # Every visible window, then their names: a name search does not find Qt's popup menus.
        return [w for w in self.visible_windows_any() if self.window_name(w) == title]

    def wait_new_window(self, title, known, what):
        """Waits for a visible window with this title that is not one of known, and returns its id."""
        def probe():
            self.check_running()
            fresh = [w for w in self.visible_windows(title) if w not in known]
            return fresh[0] if fresh else None
        return wait_for(what, probe)

    def visible_windows_any(self):
        result = self.xdo("search", "--onlyvisible", "--name", "", check=False)
        return [int(word) for word in result.stdout.split()]

    def geometry(self, window):
        values = {}
        for line in self.xdo("getwindowgeometry", "--shell", window).stdout.decode().split():
            key, _, value = line.partition("=")
            values[key] = int(value) if value.lstrip("-").isdigit() else value
        return values["X"], values["Y"], values["WIDTH"], values["HEIGHT"]

    def focus(self, window):
        """Gives the window the keyboard: activation through a window manager when there is one, the X
        input focus otherwise (a bare Xvfb has none)."""
        if self.use_activate:
            if self.xdo("windowactivate", "--sync", window, check=False, timeout=5).returncode == 0:
                return
            self.use_activate = False
        self.xdo("windowfocus", "--sync", window)
        wait_for("the keyboard focus on window %d" % window,
                 lambda: self.xdo("getwindowfocus").stdout.split() == [str(window).encode()])

    def key(self, window, *keys):
        self.focus(window)
        self.xdo("key", "--delay", "40", *keys)

    def click(self, window, x, y, button=1):
        self.xdo("mousemove", "--window", window, "--sync", int(x), int(y))
        self.xdo("click", button)

    def dump(self, window):
        try:
            result = subprocess.run(["xwd", "-silent", "-id", str(window), "-display", self.display],
                                    stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=TIMEOUT)
        except subprocess.TimeoutExpired:
            raise Failure("xwd did not finish within %.0f s" % TIMEOUT)
        if result.returncode != 0:
            raise Failure("xwd of window %d failed: %s" % (window, result.stderr.decode(errors="replace").strip()))
        return result.stdout

    def shot(self, window, name, settle=True, docs_name=None):
        """Saves a screenshot of the window and checks that it shows something: at least a few colours."""
        if settle:
            time.sleep(SETTLE)
        data = self.dump(window)
        image = Image(data)
        if image.width < 50 or image.height < 30:
            raise Failure("the screenshot %s is only %dx%d pixels" % (name, image.width, image.height))
        colours = image.colour_count()
        if colours < 6:
            raise Failure("the screenshot %s shows only %d colours: the window looks blank" % (name, colours))
        self.shots += 1
        path = os.path.join(self.output, "%02d-%s.png" % (self.shots, name))
        screenshot.xwd_to_png(data, path)
        if docs_name and self.docs:
            target = os.path.join(ROOT, "docs", "screenshots", docs_name)
            shutil.copyfile(path, target)
            log("saved %s" % os.path.relpath(target, ROOT))
        return image

    # --- Reading the main window

    @staticmethod
    def table_column(image):
        """A column inside the Date column, to the right of the header's centred texts and of the dates,
        left of the Size column (150 pixels wide)."""
        return image.width * 72 // 100

    def table_rows_top(self, image):
        """The y of the first table row: below the blue header, below the table's frame line and the
        line under the column headers. Read in a column inside the Date column but clear of its texts."""
        x = self.table_column(image)
        background = image.pixel(2, image.height - 2)
        y = 0
        while y < image.height // 2 and not is_saturated(image.pixel(x, y)):
            y += 1
        # The header's texts interrupt its blue; it ends where the window's background runs for a while.
        run = 0
        while y < image.height // 2 and run < 5:
            run = run + 1 if close_to(image.pixel(x, y), background) else 0
            y += 1
        lines = []
        while y < image.height and len(lines) < 2:
            colour = image.pixel(x, y)
            if is_grey(colour) and colour[0] <= 200:
                lines.append(y)
                while y < image.height and is_grey(image.pixel(x, y)) and image.pixel(x, y)[0] <= 200:
                    y += 1
                continue
            y += 1
        if len(lines) < 2 or not 8 <= lines[1] - lines[0] <= 60:
            raise Failure("could not find the backups table in the main window (lines at %s)" % lines)
        return y

    def highlighted_band(self, image, y):
        """The selection highlight (top, bottom) around y in the table, or None."""
        x = self.table_column(image)
        if not is_saturated(image.pixel(x, y)):
            return None
        top = bottom = y
        while top > 0 and is_saturated(image.pixel(x, top - 1)):
            top -= 1
        while bottom + 1 < image.height and is_saturated(image.pixel(x, bottom + 1)):
            bottom += 1
        return top, bottom

    def select_row(self, row, name):
        """Clicks table row `row` (1 is the first) and checks in a screenshot that it is the one selected."""
        self.focus(self.main)
        image = Image(self.dump(self.main))
        top = self.table_rows_top(image)
        if self.row_height is None:
            # The first click lands near the top of row 1; its highlight tells how tall rows are.
            if row != 1:
                raise Failure("the first row selected must be row 1")
            self.click(self.main, self.table_column(image), top + 6)
            band = wait_for("row 1 to show as selected",
                            lambda: self.highlighted_band(Image(self.dump(self.main)), top + 6), timeout=5)
            if band[0] != top or not 12 <= band[1] - band[0] + 1 <= 80:
                raise Failure("row 1 is highlighted at y %d..%d, expected from %d" % (band[0], band[1], top))
            self.row_height = band[1] - band[0] + 1
        else:
            centre = top + (row - 1) * self.row_height + self.row_height // 2
            self.click(self.main, self.table_column(image), centre)
            expected = (top + (row - 1) * self.row_height, top + row * self.row_height - 1)
            wait_for("row %d to show as selected" % row,
                     lambda: self.highlighted_band(Image(self.dump(self.main)), centre) == expected, timeout=5)
        return self.shot(self.main, name)

    def buttons(self, image):
        """The four push buttons along the bottom (Delete, Show in File Manager, Restore, Back Up) as
        (left, top, right, bottom), found by their frames against the window's background."""
        background = image.pixel(2, image.height - 2)
        x = image.width - 12 - 6  # inside the rightmost button, past the layout's right margin
        y = image.height - 1
        while y > image.height // 2 and close_to(image.pixel(x, y), background):
            y -= 1
        bottom = y
        while y > image.height // 2 and not close_to(image.pixel(x, y), background):
            y -= 1
        top = y + 1
        if not 15 <= bottom - top + 1 <= 80:
            raise Failure("could not find the button row (rows %d..%d)" % (top, bottom))
        middle = (top + bottom) // 2
        found = []
        x = image.width - 1
        while x >= 0 and len(found) < 4:
            while x >= 0 and close_to(image.pixel(x, middle), background):
                x -= 1
            right = x
            gap = 0
            while x >= 0 and gap < 3:
                gap = gap + 1 if close_to(image.pixel(x, middle), background) else 0
                x -= 1
            left = x + gap + 1
            if right - left + 1 >= 30:
                found.append((left, top, right, bottom))
        if len(found) < 4:
            raise Failure("found %d buttons along the bottom of the main window, expected 4" % len(found))
        return list(reversed(found))

    # --- Files

    def records(self):
        try:
            with open(self.prefs, encoding="utf-8") as source:
                return json.load(source).get("Backups", [])
        except (FileNotFoundError, ValueError):
            return None  # not written yet, or caught between two writes (they replace the file at once)

    def wait_records(self, count, what):
        def probe():
            self.check_running()
            records = self.records()
            return records if records is not None and len(records) == count else None
        return wait_for(what, probe)


def tree(folder):
    """Relative path -> size of every file below folder, and the set of folders."""
    files, folders = {}, set()
    for parent, names, filenames in os.walk(folder):
        for name in names:
            folders.add(os.path.relpath(os.path.join(parent, name), folder))
        for name in filenames:
            path = os.path.join(parent, name)
            files[os.path.relpath(path, folder)] = os.lstat(path).st_size
    return files, folders


def digest(path):
    hashed = hashlib.sha256()
    with open(path, "rb") as source:
        for block in iter(lambda: source.read(1 << 20), b""):
            hashed.update(block)
    return hashed.hexdigest()


def snapshot(folder):
    """Relative path -> (size, digest) of every file below folder, and the set of folders."""
    files, folders = tree(folder)
    return {relative: (size, digest(os.path.join(folder, relative))) for relative, size in files.items()}, folders


def check_backup(session, record, started, finished, source):
    """The record names a folder of the backup root, dated between started and finished, that holds
    exactly the files the iCloud folder held, byte for byte."""
    folder = record.get("BackupFolder")
    if not folder or os.path.dirname(folder) != session.backup_root:
        raise Failure("backup record names folder %r, outside %s" % (folder, session.backup_root))
    name = os.path.basename(folder)
    if not re.fullmatch(r"\d{4}\.\d\d\.\d\d-\d\d\.\d\d\.\d\d", name):
        raise Failure("backup folder name %r is not yyyy.MM.dd-HH.mm.ss" % name)
    date = datetime.datetime.fromisoformat(str(record.get("BackupDate")).replace("Z", "+00:00"))
    if not started - 1 <= date.timestamp() <= finished + 1:
        raise Failure("backup date %s is not the time of the backup" % record.get("BackupDate"))
    if date.astimezone().strftime("%Y.%m.%d-%H.%M.%S") != name:
        raise Failure("backup folder %s is not named after its local start time %s" % (name, date.astimezone()))
    if not os.path.isdir(folder):
        raise Failure("backup folder %s does not exist" % folder)
    files, folders = snapshot(folder)
    live_files, live_folders = source
    if set(files) != set(live_files) or folders != live_folders:
        raise Failure("backup %s differs from the iCloud folder: missing %s, extra %s" % (
            name, sorted(set(live_files) - set(files)) + sorted(live_folders - folders),
            sorted(set(files) - set(live_files)) + sorted(folders - live_folders)))
    for relative, content in live_files.items():
        if files[relative] != content:
            raise Failure("backup %s holds a different %s" % (name, relative))
    total = sum(size for size, _ in live_files.values())
    if record.get("BackupSize") != total:
        raise Failure("backup %s is recorded with %r bytes, the files hold %d" % (name, record.get("BackupSize"), total))
    for relative in (".hidden-settings", "Projects/Plans/2027/Draft.md"):
        if not os.path.isfile(os.path.join(folder, "com~apple~CloudDocs", relative)):
            raise Failure("backup %s lacks com~apple~CloudDocs/%s" % (name, relative))
    return folder


def stop(process):
    if process.poll() is None:
        try:
            os.killpg(process.pid, signal.SIGTERM)
        except ProcessLookupError:
            pass
        try:
            process.wait(timeout=5)
        except subprocess.TimeoutExpired:
            try:
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            process.wait()


# --- The steps ----------------------------------------------------------------------------------------

def back_up(session, count, name):
    """Ctrl+B, then waits for the backup to be listed and its progress window to go."""
    progress_title = english_text("windowTitleOperationBackUp")
    source = snapshot(session.icloud)
    started = time.time()
    session.key(session.main, "ctrl+b")
    if count == 1 and session.docs:
        catch_progress(session, progress_title)
    records = session.wait_records(count, "backup %d to be listed in %s" % (count, session.prefs))
    finished = time.time()
    wait_for("the progress window %r to close" % progress_title,
             lambda: not session.visible_windows(progress_title))
    folder = check_backup(session, records[-1], started, finished, source)
    log("backup %d is %s (%d bytes)" % (count, folder, records[-1]["BackupSize"]))
    session.shot(session.main, name)
    return folder


def catch_progress(session, title):
    """Dumps the progress window as often as it can while it is up and keeps one dump for the docs."""
    window = session.wait_new_window(title, set(), "the progress window %r" % title)
    frames = []
    while len(frames) < 200:
        try:
            data = session.dump(window)
            image = Image(data)
        except Failure:
            break  # closed: an unmapped window cannot be dumped
        frames.append((data, image))
    if not frames:
        raise Failure("the progress window closed before it could be dumped")

    def filled(image):
        # The bar sits in the middle third of the window's height; measure the longest highlighted run.
        best = 0
        for y in range(image.height // 3, image.height * 2 // 3, 3):
            run = longest = 0
            starts_left = False
            for x in range(image.width):
                if is_saturated(image.pixel(x, y)):
                    run += 1
                    if run == 1:
                        starts_left = x < 30
                    longest = max(longest, run if starts_left else 0)
                else:
                    run = 0
            best = max(best, longest)
        return best / max(1, image.width - 32)

    # The dump nearest to a bar two thirds full; one that is busy (no value yet) or full only if that is all.
    scored = [(filled(image), n) for n, (data, image) in enumerate(frames)]
    usable = [(fraction, n) for fraction, n in scored if 0.05 <= fraction < 0.95] or scored
    fraction, n = min(usable, key=lambda item: abs(item[0] - 0.66))
    log("caught the progress window in %d dumps; keeping one with the bar at %.0f%%" % (len(frames), fraction * 100))
    data = frames[n][0]
    path = os.path.join(session.output, "progress.png")
    screenshot.xwd_to_png(data, path)
    target = os.path.join(ROOT, "docs", "screenshots", "progress-en.png")
    shutil.copyfile(path, target)
    log("saved %s" % os.path.relpath(target, ROOT))
    if fraction < 0.05:
        log("warning: the kept progress dump shows no progress yet")


def get_info(session):
    """Selects row 1 with a click, Ctrl+I, and waits for the info window."""
    title = english_text("windowTitleBackupInfo")
    session.select_row(1, "row-1-selected")
    session.key(session.main, "ctrl+i")
    window = session.wait_new_window(title, set(), "the info window %r" % title)
    session.shot(window, "get-info", docs_name="inspector-en.png")
    x, y, width, height = session.geometry(window)
    if width < 200 or height < 150:
        raise Failure("the info window is only %dx%d" % (width, height))
    # Left open: the menu's shortcuts (Close Window included) belong to the main window, and a bare X
    # server has no title bar to close it with. Moved beside the main window, as xwd writes a dump of a
    # window that another window overlaps in a format the PNG writer does not read.
    main_x, main_y, main_width, main_height = session.geometry(session.main)
    session.xdo("windowmove", "--sync", window, main_x + main_width, 0)


def restore(session, first_folder):
    """Changes the iCloud folder, selects backup 1, File > Restore from Backup, Return on the question,
    and waits until the folder holds what the backup holds again."""
    notes = os.path.join(session.drive, "Notes.txt")
    budget = os.path.join(session.drive, "Projects", "Budget.csv")
    added = os.path.join(session.drive, "Added after the backup.txt")
    with open(notes, "wb") as out:
        out.write(b"changed after the backup\n")
    os.remove(budget)
    with open(added, "wb") as out:
        out.write(b"not in any backup\n")
    expected = snapshot(first_folder)

    session.select_row(1, "restore-row-1-selected")
    known = set(session.visible_windows("Pelmora"))
    session.key(session.main, "alt+f")
    menu = session.wait_new_window("Pelmora", known, "the File menu to open")
    known.add(menu)
    session.shot(menu, "file-menu")
    session.xdo("key", "r")  # the open menu has the keyboard: R is "Restore from Backup"
    question = session.wait_new_window("Pelmora", known, "the restore question")
    session.shot(question, "restore-question")
    session.key(question, "Return")
    restore_title = english_text("windowTitleOperationRestore")

    def restored():
        session.check_running()
        if session.visible_windows(restore_title):
            return False
        # The cheap look first: sizes and names; the contents only once those match.
        files, folders = tree(session.icloud)
        if folders != expected[1] or files != {path: size for path, (size, _) in expected[0].items()}:
            return False
        return snapshot(session.icloud) == expected
    wait_for("the iCloud folder to equal backup 1 again", restored)
    if os.path.exists(added):
        raise Failure("the restore left a file that is not in the backup: %s" % added)
    log("restored backup 1: Notes.txt and Projects/Budget.csv are back, the added file is gone")
    session.shot(session.main, "restored")


def delete_second(session, second_folder):
    """Selects row 2 with a click, clicks Delete, Return on the question; the folder and its record go."""
    image = session.select_row(2, "row-2-selected")
    delete_button = session.buttons(image)[0]
    known = set(session.visible_windows("Pelmora"))
    left, top, right, bottom = delete_button
    session.click(session.main, (left + right) // 2, (top + bottom) // 2)
    question = session.wait_new_window("Pelmora", known, "the delete question")
    session.shot(question, "delete-question")
    session.key(question, "Return")
    records = session.wait_records(1, "the backup list to hold one backup")
    wait_for("the second backup's folder to go", lambda: not os.path.exists(second_folder))
    if records[0].get("BackupFolder") == second_folder:
        raise Failure("the backup left in the list is the deleted one")
    if sorted(os.listdir(session.backup_root)) != [os.path.basename(records[0]["BackupFolder"])]:
        raise Failure("the backup root holds %s" % sorted(os.listdir(session.backup_root)))
    log("deleted backup 2: %s is gone" % second_folder)
    session.shot(session.main, "deleted")


def quit_program(session):
    session.key(session.main, "ctrl+q")
    try:
        status = session.program.wait(timeout=10)
    except subprocess.TimeoutExpired:
        raise Failure("Pelmora did not exit within 10 s of Ctrl+Q")
    if status != 0:
        raise Failure("Pelmora exited with status %d after Ctrl+Q" % status)
    log("Ctrl+Q: Pelmora exited with status 0")


def run(session):
    session.start_xvfb()
    session.make_home()
    session.start_program()
    # Waited for in slices, so that a program that dies at start is reported at once.
    deadline = time.monotonic() + TIMEOUT
    while True:
        try:
            result = subprocess.run(["xdotool", "search", "--sync", "--onlyvisible", "--name", "^Pelmora$"],
                                    env=session.env, stdout=subprocess.PIPE, timeout=2)
            break
        except subprocess.TimeoutExpired:
            session.check_running()
            if time.monotonic() > deadline:
                raise Failure("the main window did not appear within %.0f s" % TIMEOUT)
    session.main = int(result.stdout.split()[0])
    x, y, width, height = session.geometry(session.main)
    log("main window %d at %d,%d, %dx%d" % (session.main, x, y, width, height))
    if session.records():
        raise Failure("a fresh home already lists backups")
    session.shot(session.main, "started")

    session.step = "backing up the first time"
    first = back_up(session, 1, "backed-up-once")
    # Folder names count seconds: the second backup must start in another second.
    time.sleep(1.1)
    session.step = "backing up the second time"
    second = back_up(session, 2, "backed-up-twice")
    if first == second:
        raise Failure("both backups went to %s" % first)
    session.step = "showing Get Info for backup 1"
    get_info(session)
    session.step = "restoring backup 1"
    restore(session, first)
    session.step = "deleting backup 2"
    delete_second(session, second)
    session.step = "quitting"
    quit_program(session)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--program", default=os.path.join(ROOT, "build", "Pelmora"))
    parser.add_argument("--output", help="folder for the screenshots and logs (default: a new one in /tmp)")
    parser.add_argument("--save-docs-screenshots", action="store_true",
                        help="also write docs/screenshots/inspector-en.png and progress-en.png")
    arguments = parser.parse_args()

    missing = [tool for tool in ("Xvfb", "xdotool", "xwd") if not shutil.which(tool)]
    if missing:
        print("e2e: SKIPPED: %s not installed (Debian: apt-get install xvfb xdotool x11-apps)" % ", ".join(missing))
        return SKIPPED
    if not os.access(arguments.program, os.X_OK):
        print("e2e: FAILED: no program at %s (build the pelmora target first)" % arguments.program)
        return 1

    output = arguments.output or tempfile.mkdtemp(prefix="pelmora-e2e-", dir="/tmp")
    os.makedirs(output, exist_ok=True)
    log("screenshots and logs go to %s" % output)
    # A test runner's timeout ends the run with SIGTERM: clean up then too.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("e2e: FAILED: terminated"))
    session = Session(os.path.abspath(arguments.program), output, arguments.save_docs_screenshots)
    began = time.monotonic()
    try:
        run(session)
    except Failure as failure:
        print("e2e: FAILED while %s: %s" % (session.step, failure))
        print("e2e: screenshots and logs are in %s" % output)
        if session.program_log:
            session.program_log.flush()
            with open(session.program_log.name, "rb") as source:
                tail = source.read()[-3000:].decode(errors="replace").strip()
            if tail:
                print("e2e: Pelmora's output:\n" + tail)
        return 1
    finally:
        session.cleanup()
    log("PASSED in %.1f s (%d screenshots in %s)" % (time.monotonic() - began, session.shots, output))
    return 0


if __name__ == "__main__":
    sys.exit(main())
