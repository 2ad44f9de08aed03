#!/usr/bin/env python3
"""End-to-end test of the real program: it runs build/Pelmora in its own Xvfb server with a temporary home
and drives it the way a person would, with X key presses and mouse clicks (xdotool), while checking the
files on disk after every step and taking a screenshot of every window it works with.

Cases, each in a new temporary home and one after another whatever the one before did:
- back up twice, open Get Info on the first backup, restore it over a changed iCloud folder, delete the
  second backup, quit with Ctrl+Q;
- a backup larger than the free space of a 20 MB tmpfs (skipped where a tmpfs cannot be mounted);
- as an unprivileged user, a file and a folder that cannot be read: the backup, its alert and details,
  the list of items not copied beside the backup folder;
- the backup root is a regular file: the backup-not-made alert, for Ctrl+B and for the button;
- the settings file is a folder: one alert a session, the unrecorded folders removed at the next launch,
  and the whole list saved once the file can be written again;
- with 900 MB in 9,800 files to copy: Ctrl+B again during a copy, Escape and the close button during a copy, and a
  SIGTERM during a copy (ended within two seconds), SIGKILL during a copy followed by a new launch.
Alert texts are read back through the X selection that a triple click on them makes.

Exit status: 0 passed, 1 failed (with a message saying what and where), 77 skipped (no Xvfb, xdotool or
xwd on this machine). Python 3 standard library only; the PNG writer is the one scripts/screenshot.py has.

    tests/e2e/run_e2e.py [--program build/Pelmora] [--output DIR] [--save-docs-screenshots] [--only WORDS]
"""

import argparse
import ctypes
import ctypes.util
import datetime
import errno
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
import urllib.parse
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


def hold(what, probe, duration):
    """Calls probe every POLL_INTERVAL seconds for duration seconds and fails as soon as it returns
    something false: for what must not happen, such as a second alert."""
    deadline = time.monotonic() + duration
    while time.monotonic() < deadline:
        if not probe():
            raise Failure(what)
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


# --- The close button and the selection ----------------------------------------------------------------

class _XClientMessageEvent(ctypes.Structure):
    _fields_ = [("type", ctypes.c_int), ("serial", ctypes.c_ulong), ("send_event", ctypes.c_int),
                ("display", ctypes.c_void_p), ("window", ctypes.c_ulong), ("message_type", ctypes.c_ulong),
                ("format", ctypes.c_int), ("data", ctypes.c_long * 5)]


class _XSelectionEvent(ctypes.Structure):
    _fields_ = [("type", ctypes.c_int), ("serial", ctypes.c_ulong), ("send_event", ctypes.c_int),
                ("display", ctypes.c_void_p), ("requestor", ctypes.c_ulong), ("selection", ctypes.c_ulong),
                ("target", ctypes.c_ulong), ("property", ctypes.c_ulong), ("time", ctypes.c_ulong)]


class _XEvent(ctypes.Union):
    _fields_ = [("xclient", _XClientMessageEvent), ("xselection", _XSelectionEvent), ("pad", ctypes.c_long * 24)]


def _x11():
    x11 = ctypes.CDLL(ctypes.util.find_library("X11") or "libX11.so.6")
    x11.XOpenDisplay.restype = ctypes.c_void_p
    x11.XOpenDisplay.argtypes = [ctypes.c_char_p]
    x11.XInternAtom.restype = ctypes.c_ulong
    x11.XInternAtom.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int]
    x11.XSendEvent.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_int, ctypes.c_long,
                               ctypes.POINTER(_XEvent)]
    x11.XCloseDisplay.argtypes = [ctypes.c_void_p]
    x11.XDefaultRootWindow.restype = ctypes.c_ulong
    x11.XDefaultRootWindow.argtypes = [ctypes.c_void_p]
    x11.XCreateSimpleWindow.restype = ctypes.c_ulong
    x11.XCreateSimpleWindow.argtypes = [ctypes.c_void_p, ctypes.c_ulong] + [ctypes.c_int] * 2 + [ctypes.c_uint] * 3 \
        + [ctypes.c_ulong] * 2
    x11.XConvertSelection.argtypes = [ctypes.c_void_p] + [ctypes.c_ulong] * 5
    x11.XFlush.argtypes = [ctypes.c_void_p]
    x11.XPending.argtypes = [ctypes.c_void_p]
    x11.XNextEvent.argtypes = [ctypes.c_void_p, ctypes.POINTER(_XEvent)]
    x11.XGetWindowProperty.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_ulong, ctypes.c_long, ctypes.c_long,
                                       ctypes.c_int, ctypes.c_ulong, ctypes.POINTER(ctypes.c_ulong),
                                       ctypes.POINTER(ctypes.c_int), ctypes.POINTER(ctypes.c_ulong),
                                       ctypes.POINTER(ctypes.c_ulong), ctypes.POINTER(ctypes.c_void_p)]
    x11.XFree.argtypes = [ctypes.c_void_p]
    return x11


def primary_selection(display):
    """The text of the PRIMARY selection (what a mouse selection in the program holds), or None."""
    x11 = _x11()
    connection = x11.XOpenDisplay(display.encode())
    if not connection:
        raise Failure("could not open display %s to read the selection" % display)
    try:
        window = x11.XCreateSimpleWindow(connection, x11.XDefaultRootWindow(connection), 0, 0, 1, 1, 0, 0, 0)
        target = x11.XInternAtom(connection, b"PELMORA_E2E_SELECTION", 0)
        x11.XConvertSelection(connection, x11.XInternAtom(connection, b"PRIMARY", 0),
                              x11.XInternAtom(connection, b"UTF8_STRING", 0), target, window, 0)
        x11.XFlush(connection)
        event = _XEvent()

        def answered():
            while x11.XPending(connection):
                x11.XNextEvent(connection, ctypes.byref(event))
                if event.xselection.type == 31:  # SelectionNotify
                    return True
            return False
        wait_for("the program to hand over the selection", answered, timeout=5)
        if event.xselection.property == 0:
            return None
        kind, width, count, left = ctypes.c_ulong(), ctypes.c_int(), ctypes.c_ulong(), ctypes.c_ulong()
        data = ctypes.c_void_p()
        if x11.XGetWindowProperty(connection, window, target, 0, 1 << 20, 1, 0, ctypes.byref(kind),
                                  ctypes.byref(width), ctypes.byref(count), ctypes.byref(left),
                                  ctypes.byref(data)) != 0 or not data.value:
            return None
        try:
            return ctypes.string_at(data.value, count.value).decode("utf-8", errors="replace")
        finally:
            x11.XFree(data)
    finally:
        x11.XCloseDisplay(connection)


def send_delete_window(display, window):
    """Sends the window the WM_DELETE_WINDOW message a window manager sends when its close button is
    clicked. xdotool's windowclose destroys the window instead, which no user can do."""
    x11 = _x11()
    connection = x11.XOpenDisplay(display.encode())
    if not connection:
        raise Failure("could not open display %s to send WM_DELETE_WINDOW" % display)
    try:
        event = _XEvent()
        event.xclient.type = 33  # ClientMessage
        event.xclient.window = window
        event.xclient.message_type = x11.XInternAtom(connection, b"WM_PROTOCOLS", 0)
        event.xclient.format = 32
        event.xclient.data[0] = x11.XInternAtom(connection, b"WM_DELETE_WINDOW", 0)
        event.xclient.data[1] = 0  # CurrentTime
        if not x11.XSendEvent(connection, window, 0, 0, ctypes.byref(event)):
            raise Failure("XSendEvent of WM_DELETE_WINDOW to window %d failed" % window)
    finally:
        x11.XCloseDisplay(connection)  # flushes the event


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
        self.programs = []  # every program started, stopped at the end whatever happened
        self.home = None
        self.homes = []
        self.mounts = []
        self.display = None
        self.env = None
        self.main = None  # the main window's X id
        self.row_height = None  # learnt from the first row selected
        self.use_activate = True
        self.shots = 0
        self.step = "starting"
        self.only = None

    # --- Processes

    def start_xvfb(self):
        self.xvfb_log = open(os.path.join(self.output, "xvfb.log"), "wb")
        first = 100 + os.getpid() % 400
        for number in range(first, first + 60):
            if os.path.exists("/tmp/.X%d-lock" % number) or os.path.exists("/tmp/.X11-unix/X%d" % number):
                continue
            display = ":%d" % number
            # -noreset: the server would otherwise reset when a case's program quits and its last client
            # goes, and refuse the next case's program while it does.
            xvfb = subprocess.Popen(["Xvfb", display, "-screen", "0", "1280x900x24", "-nolisten", "tcp", "-noreset"],
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

    def make_home(self, bulk=False):
        """A new temporary home with a small iCloud folder; bulk adds the docs' 300 MB of data to it."""
        self.home = tempfile.mkdtemp(prefix="pelmora-", dir="/tmp")
        self.homes.append(self.home)
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
        if bulk:
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

    def start_program(self, log_name="pelmora.log", user=None):
        """Starts the program in the current home; user (uid, gid) runs it as that user instead."""
        env = {key: value for key, value in os.environ.items()
               if key not in ("QT_QPA_PLATFORM", "WAYLAND_DISPLAY", "SESSION_MANAGER", "DESKTOP_SESSION",
                              "XDG_CURRENT_DESKTOP", "QT_SCALE_FACTOR", "QT_SCREEN_SCALE_FACTORS")}
        env.update(HOME=self.home, XDG_CONFIG_HOME=self.config,
                   XDG_DATA_HOME=os.path.join(self.home, ".local", "share"),
                   XDG_CACHE_HOME=os.path.join(self.home, ".cache"),
                   # The single-instance lock lies beside the preferences and its socket in the runtime
                   # folder, both inside this home: a Pelmora the user has open never takes this start over.
                   XDG_RUNTIME_DIR=os.path.join(self.home, "runtime"),
                   TMPDIR=os.path.join(self.home, "tmp"),
                   # No session bus of the user's: nothing here may reach the desktop.
                   DBUS_SESSION_BUS_ADDRESS="unix:path=" + os.path.join(self.home, "runtime", "no-bus"),
                   DISPLAY=self.display, LANGUAGE="en", LANG="en_GB.UTF-8")
        env.pop("LC_ALL", None)
        env.pop("LC_MESSAGES", None)
        self.env = env
        if self.program_log:
            self.program_log.close()
        self.program_log = open(os.path.join(self.output, log_name), "wb")
        command = [self.program_path]
        if user is not None:
            command = ["setpriv", "--reuid=%d" % user[0], "--regid=%d" % user[1], "--clear-groups"] + command
        self.program = subprocess.Popen(command, env=env, stdout=self.program_log,
                                        stderr=subprocess.STDOUT, cwd=self.home, start_new_session=True)
        self.programs.append(self.program)
        self.started_at = time.monotonic()
        log("started %s (pid %d) with HOME=%s" % (self.program_path, self.program.pid, self.home))

    def wait_main_window(self):
        """Waits for the main window of the program just started, and learns its id."""
        # Waited for in slices, so that a program that dies at start is reported at once.
        known = set(self.visible_windows("Pelmora"))
        self.row_height = None
        self.main = self.wait_new_window("Pelmora", known, "the main window")
        x, y, width, height = self.geometry(self.main)
        log("main window %d at %d,%d, %dx%d" % (self.main, x, y, width, height))
        return self.main

    def mount_tmpfs(self, folder, size):
        """Mounts a tmpfs of size bytes on folder, or says why not (None when mounted)."""
        os.makedirs(folder, exist_ok=True)
        result = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=%d,mode=0700" % size, "tmpfs", folder],
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        if result.returncode != 0:
            return result.stdout.decode(errors="replace").strip() or "mount exited with %d" % result.returncode
        self.mounts.append(folder)
        return None

    def unmount_all(self):
        while self.mounts:
            subprocess.run(["umount", self.mounts.pop()], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def stop_program(self):
        if self.program is not None:
            stop(self.program)

    def cleanup(self):
        for program in self.programs:
            stop(program)
        if self.xvfb is not None:
            stop(self.xvfb)
        for handle in (self.program_log, self.xvfb_log):
            if handle:
                handle.close()
        self.unmount_all()
        for home in self.homes:
            shutil.rmtree(home, ignore_errors=True)

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

    def click_back_up(self):
        """Clicks the Back Up button, the rightmost of the bottom row."""
        self.focus(self.main)
        left, top, right, bottom = self.buttons(Image(self.dump(self.main)))[3]
        self.click(self.main, (left + right) // 2, (top + bottom) // 2)

    def check_table_empty(self, name):
        """Clicks where the first row would be and checks for a while that no row shows as selected."""
        self.focus(self.main)
        image = Image(self.dump(self.main))
        top = self.table_rows_top(image)
        self.click(self.main, self.table_column(image), top + 6)
        hold("the table lists a backup: a click on its first line selected one",
             lambda: self.highlighted_band(Image(self.dump(self.main)), top + 6) is None, 1.0)
        self.shot(self.main, name)

    def close_window(self, window):
        send_delete_window(self.display, window)

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

def back_up(session, count, name, button=False, catch=False):
    """Ctrl+B (or a click on Back Up), then waits for the backup to be listed and its progress window to go."""
    progress_title = english_text("windowTitleOperationBackUp")
    source = snapshot(session.icloud)
    started = time.time()
    if button:
        session.click_back_up()
    else:
        session.key(session.main, "ctrl+b")
    if catch:
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
    trash = os.path.join(session.home, ".local", "share", "Trash")
    for original, content in ((notes, b"changed after the backup\n"), (added, b"not in any backup\n")):
        check_trashed(trash, original, content)
    log("restored backup 1: Notes.txt and Projects/Budget.csv are back, the added file is gone; the changed"
        " and the added file are in the Trash with their .trashinfo")
    session.shot(session.main, "restored")


TRASH_INFO = re.compile(rb"\A\[Trash Info\]\nPath=(/[^\n]+)\nDeletionDate=(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)\n\Z")


def check_trashed(trash, original, content):
    """The item that was at `original` is in the home Trash with `content` and a .trashinfo that names
    where it was and when it went, as a file manager needs to put it back."""
    name = os.path.basename(original)
    try:
        with open(os.path.join(trash, "info", name + ".trashinfo"), "rb") as info:
            match = TRASH_INFO.match(info.read())
        with open(os.path.join(trash, "files", name), "rb") as item:
            trashed = item.read()
    except OSError as error:
        raise Failure("%s is not in the Trash: %s" % (original, error))
    if not match:
        raise Failure("the .trashinfo of %s is not valid" % name)
    path = urllib.parse.unquote_to_bytes(match.group(1).decode())
    if path != os.fsencode(original):
        raise Failure("the .trashinfo of %s names %r, not %r" % (name, path, original))
    went = datetime.datetime.strptime(match.group(2).decode(), "%Y-%m-%dT%H:%M:%S")
    if abs((datetime.datetime.now() - went).total_seconds()) > 120:
        raise Failure("the .trashinfo of %s dates it %s" % (name, went))
    if trashed != content:
        raise Failure("the Trash holds %r for %s, expected %r" % (trashed, name, content))


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


def back_up_inspect_restore_delete(session):
    """Backs up twice, opens Get Info on the first backup, restores it, deletes the second, quits."""
    session.make_home(bulk=session.docs)
    session.start_program()
    session.wait_main_window()
    if session.records():
        raise Failure("a fresh home already lists backups")
    session.shot(session.main, "started")

    session.step = "backing up the first time"
    first = back_up(session, 1, "backed-up-once", catch=session.docs)
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


# --- Backups that fail, are cancelled or are cut short ------------------------------------------------

BACKUP_NAME = re.compile(r"\d{4}\.\d\d\.\d\d-\d\d\.\d\d\.\d\d")
UNFINISHED = ".unfinished"
NOT_COPIED = ".not-copied"


def root_entries(session):
    """The names in the backup root, sorted; none when it is missing or not a folder."""
    try:
        return sorted(os.listdir(session.backup_root))
    except (FileNotFoundError, NotADirectoryError):
        return []


def backup_folders(session):
    return [name for name in root_entries(session)
            if BACKUP_NAME.fullmatch(name) and os.path.isdir(os.path.join(session.backup_root, name))]


def unfinished_marks(session):
    return [name for name in root_entries(session) if name.endswith(UNFINISHED)]


def write_bulk(folder, count, size):
    """count files of size bytes of real data (not sparse), different from each other."""
    os.makedirs(folder, exist_ok=True)
    block = os.urandom(size)
    for n in range(count):
        with open(os.path.join(folder, "part-%04d.bin" % n), "wb") as out:
            out.write(n.to_bytes(4, "big") + block[4:])


def holds_a_file(folder):
    for _, _, filenames in os.walk(folder):
        if filenames:
            return True
    return False


def alert_after(session, action, what, name):
    """Does action and waits for a new alert window (a window titled Pelmora besides the main window);
    takes its screenshot and returns its id."""
    known = set(session.visible_windows("Pelmora"))
    action()
    alert = session.wait_new_window("Pelmora", known, what)
    session.shot(alert, name)
    return alert


def alert_texts(session, alert):
    """The alert's message and the first paragraph of its informative text, read back through the
    selection a triple click on each makes, as a person would copy them."""
    image = Image(session.dump(alert))
    background = image.pixel(2, image.height - 2)

    def ink(x, y):
        return max(image.pixel(x, y)) < 100

    # The texts start right of the icon: past the first run of empty columns after it.
    columns = [any(not close_to(image.pixel(x, y), background, 6) for y in range(image.height // 3))
               for x in range(image.width)]
    first = columns.index(True) if True in columns else 0
    left = first
    while left < image.width and columns[left]:
        left += 1
    while left < image.width and not columns[left]:
        left += 1
    # Lines of text grouped into paragraphs: a blank run taller than the space between lines ends one.
    paragraphs, blank = [], None
    for y in range(image.height):
        xs = [x for x in range(left, image.width - 4) if ink(x, y)]
        if not xs:
            blank = 0 if blank is None else blank + 1
            continue
        if not paragraphs or blank is None or blank > 8:
            paragraphs.append([y, min(xs)])
        else:
            paragraphs[-1][1] = min(paragraphs[-1][1], min(xs))
        blank = 0
    if len(paragraphs) < 2:
        raise Failure("the alert shows %d paragraphs of text, expected a message and an explanation" % len(paragraphs))
    texts = []
    for top, x in paragraphs[:2]:
        before = texts[-1] if texts else primary_selection(session.display)
        session.xdo("mousemove", "--window", alert, "--sync", x + 2, top + 5)
        session.xdo("click", "--repeat", "3", "--delay", "60", 1)
        texts.append(wait_for("the alert's text to be selected",
                              lambda: (lambda text: text if text and text != before else None)(
                                  primary_selection(session.display)), timeout=5))
    return texts


def check_alert(session, alert, message, explanation):
    """The alert's message equals message and its first paragraph of explanation matches the pattern."""
    # A selected paragraph ends with its line break.
    shown, explained = (text.rstrip("\n") for text in alert_texts(session, alert))
    if shown != message:
        raise Failure("the alert says %r, expected %r" % (shown, message))
    if not re.fullmatch(explanation, explained):
        raise Failure("the alert explains %r, expected it to match %r" % (explained, explanation))
    log("alert: %s / %s" % (shown, explained))


def not_written(path_pattern, code):
    """The pattern of the English "“%1” could not be written: %2." for a path and an errno."""
    template = re.escape(english_text("formatStringItemNotWritten"))
    return template.replace("%1", path_pattern).replace("%2", re.escape(os.strerror(code)))


def dismiss(session, window, what):
    session.key(window, "Return")
    wait_for("%s to close after Return" % what, lambda: window not in session.visible_windows_any())


def wait_progress_gone(session):
    title = english_text("windowTitleOperationBackUp")
    wait_for("the progress window %r to close" % title, lambda: not session.visible_windows(title))


def start_copying(session, what):
    """Ctrl+B, then waits until the copy runs: the progress window is up, and a new backup folder with
    its unfinished mark holds a first file. Returns the progress window and the folder's path."""
    title = english_text("windowTitleOperationBackUp")
    before = set(backup_folders(session))
    session.key(session.main, "ctrl+b")
    progress = session.wait_new_window(title, set(), "the progress window %r" % title)

    def copying():
        session.check_running()
        fresh = [name for name in backup_folders(session) if name not in before]
        if len(fresh) != 1:
            return None
        folder = os.path.join(session.backup_root, fresh[0])
        return folder if os.path.exists(folder + UNFINISHED) and holds_a_file(folder) else None
    folder = wait_for("the copy of %s to start" % what, copying)
    if not session.visible_windows(title):
        raise Failure("the progress window is gone while %s still copies" % what)
    return progress, folder


def not_enough_space(session):
    """$XDG_DATA_HOME on a 20 MB tmpfs and a 42 MB iCloud folder: Back Up says there is not enough
    space and leaves nothing behind; with the big files gone, Back Up makes a backup."""
    session.make_home()
    reason = session.mount_tmpfs(os.path.join(session.home, ".local", "share"), 20 << 20)
    if reason:
        log("SKIPPED the not-enough-space case: cannot mount a tmpfs (%s)" % reason)
        return
    big = os.path.join(session.drive, "Videos")
    write_bulk(big, 6, 7 << 20)
    session.start_program(log_name="pelmora-no-space.log")
    session.wait_main_window()

    session.step = "backing up 42 MB onto 20 MB"
    alert = alert_after(session, lambda: session.key(session.main, "ctrl+b"), "the not-enough-space alert",
                        "no-space-alert")
    check_alert(session, alert, english_text("alertNotEnoughDiskSpaceWarningMessage"),
                re.escape(english_text("alertNotEnoughDiskSpaceToBackUpInfo").split("\n")[0]))
    dismiss(session, alert, "the not-enough-space alert")
    wait_progress_gone(session)
    if root_entries(session):
        raise Failure("the refused backup left %s in %s" % (root_entries(session), session.backup_root))
    if session.records():
        raise Failure("the refused backup is listed: %s" % session.records())
    log("not enough space: alert dismissed, no folder and no record")

    session.step = "backing up again with the big files gone"
    shutil.rmtree(big)
    back_up(session, 1, "no-space-then-backed-up", button=True)
    if unfinished_marks(session):
        raise Failure("the backup left marks %s" % unfinished_marks(session))
    quit_program(session)
    session.unmount_all()


def unreadable_items(session):
    """As an unprivileged user, with a file and a folder in the iCloud folder the user cannot read: the
    backup is made and listed, an alert counts the two items and lists them in its details, the list of
    items not copied lies beside the backup folder, and every readable file is in the backup."""
    user = (65534, 65534)
    session.make_home()
    secret = os.path.join(session.drive, "Private note.txt")
    locked = os.path.join(session.drive, "Locked")
    with open(secret, "wb") as out:
        out.write(b"not for this user\n")
    os.makedirs(locked)
    with open(os.path.join(locked, "inside.txt"), "wb") as out:
        out.write(b"nor this\n")
    readable_files, readable_folders = snapshot(session.icloud)
    readable_files = {path: content for path, content in readable_files.items()
                      if path != "com~apple~CloudDocs/Private note.txt" and not path.startswith("com~apple~CloudDocs/Locked/")}
    for parent, names, filenames in os.walk(session.home):
        for name in [parent] + [os.path.join(parent, n) for n in names + filenames]:
            if not (name == locked or name.startswith(locked + "/")):
                os.lchown(name, *user)
    os.chmod(secret, 0)
    os.chmod(locked, 0o700)  # left to root
    session.start_program(log_name="pelmora-unreadable.log", user=user)
    session.wait_main_window()

    session.step = "backing up a folder with unreadable items"
    started = time.time()
    alert = alert_after(session, lambda: session.key(session.main, "ctrl+b"), "the items-not-copied alert",
                        "not-copied-alert")
    records = session.wait_records(1, "the backup with unreadable items to be listed")
    folder = records[0].get("BackupFolder")
    if not folder or os.path.dirname(folder) != session.backup_root or not os.path.isdir(folder):
        raise Failure("the backup record names %r, not a folder of %s" % (folder, session.backup_root))
    date = datetime.datetime.fromisoformat(str(records[0].get("BackupDate")).replace("Z", "+00:00"))
    if not started - 1 <= date.timestamp() <= time.time() + 1:
        raise Failure("backup date %s is not the time of the backup" % records[0].get("BackupDate"))

    # The details: Tab moves from OK to the details button, Space opens them and the alert grows. The
    # text below is read back through the selection a mouse drag across it makes.
    _, _, width, height = session.geometry(alert)
    session.key(alert, "Tab", "space")
    wait_for("the alert's details to open (the alert to grow taller than %d)" % height,
             lambda: session.geometry(alert)[3] > height + 30, timeout=5)
    session.shot(alert, "not-copied-details")
    image = Image(session.dump(alert))
    # The details' white text area, below where the alert ended before.
    top = next((y for y in range(height, image.height - 20) if image.pixel(image.width // 2, y) == (255, 255, 255)), None)
    if top is None:
        raise Failure("no text area below the alert's buttons once its details are open")
    session.xdo("mousemove", "--window", alert, "--sync", 18, top + 10)
    session.xdo("mousedown", 1)
    session.xdo("mousemove", "--window", alert, "--sync", 60, top + 30)
    session.xdo("mousemove", "--window", alert, "--sync", image.width - 20, image.height - 12)
    session.xdo("mouseup", 1)
    details = wait_for("the alert's details to be selected", lambda: primary_selection(session.display), timeout=5)
    reason = os.strerror(errno.EACCES)
    for relative in ("com~apple~CloudDocs/Locked", "com~apple~CloudDocs/Private note.txt"):
        if "%s: %s" % (relative, reason) not in details:
            raise Failure("the alert's details do not say %r: they read %r" % ("%s: %s" % (relative, reason), details))
    check_alert(session, alert, english_text("formatStringItemsNotCopiedMessage").replace("%1", "2"),
                re.escape(english_text("alertItemsNotCopiedInfo").split("\n")[0]))
    # The click on a text took the keyboard from the details button: Return is OK's again.
    dismiss(session, alert, "the items-not-copied alert")
    wait_progress_gone(session)

    listing = folder + NOT_COPIED
    if not os.path.isfile(listing):
        raise Failure("no list of the items not copied at %s; the root holds %s" % (listing, root_entries(session)))
    inside = [os.path.join(parent, name) for parent, _, names in os.walk(folder) for name in names
              if name.endswith(NOT_COPIED)]
    if inside:
        raise Failure("the backup folder itself holds a not-copied list: %s" % inside)
    listed = set()
    with open(listing, "rb") as source:
        for line in source.read().splitlines():
            if line.startswith(b"#"):
                continue
            fields = line.split(b"\t")
            if len(fields) != 3 or fields[0] != str(errno.EACCES).encode():
                raise Failure("%s has a line that is not EACCES, call and path: %r" % (listing, line))
            listed.add(re.sub(rb"%([0-9A-Fa-f]{2})", lambda m: bytes([int(m.group(1), 16)]), fields[2]).decode())
    expected = {"com~apple~CloudDocs/Private note.txt", "com~apple~CloudDocs/Locked"}
    if listed != expected:
        raise Failure("%s lists %s, expected %s" % (listing, sorted(listed), sorted(expected)))
    files, folders = snapshot(folder)
    if files != readable_files:
        raise Failure("the backup's files differ from the readable ones: missing %s, extra or different %s" % (
            sorted(set(readable_files) - set(files)),
            sorted(path for path in files if files[path] != readable_files.get(path))))
    if not readable_folders - {"com~apple~CloudDocs/Locked"} <= folders:
        raise Failure("the backup lacks folders %s" % sorted(readable_folders - folders - {"com~apple~CloudDocs/Locked"}))
    if os.path.exists(folder + UNFINISHED):
        raise Failure("the recorded backup still carries its unfinished mark")
    log("unreadable items: backup %s listed, %s names both items, %d readable files copied" % (
        os.path.basename(folder), os.path.basename(listing), len(files)))
    quit_program(session)


def root_is_a_file(session):
    """$XDG_DATA_HOME/Pelmora is a regular file: Back Up ends with the backup-not-made alert, and after
    it the Back Up button works again and says the same."""
    session.make_home()
    os.makedirs(os.path.dirname(session.backup_root), exist_ok=True)
    with open(session.backup_root, "wb") as out:
        out.write(b"in the way\n")
    session.start_program(log_name="pelmora-root-is-a-file.log")
    session.wait_main_window()

    for attempt, (press, name) in enumerate(((lambda: session.key(session.main, "ctrl+b"), "not-made-alert"),
                                             (session.click_back_up, "not-made-alert-again")), 1):
        session.step = "backing up into a file (attempt %d)" % attempt
        alert = alert_after(session, press, "the backup-not-made alert (attempt %d)" % attempt, name)
        check_alert(session, alert, english_text("alertBackupNotMadeMessage"),
                    not_written(re.escape(session.backup_root) + r"/\d{4}\.\d\d\.\d\d-\d\d\.\d\d\.\d\d", errno.ENOTDIR))
        dismiss(session, alert, "the backup-not-made alert")
        wait_progress_gone(session)
        with open(session.backup_root, "rb") as source:
            if source.read() != b"in the way\n":
                raise Failure("the file in the backup root's place was changed")
        if session.records():
            raise Failure("the failed backup is listed: %s" % session.records())
        if os.listdir(os.path.dirname(session.backup_root)) != ["Pelmora"]:
            raise Failure("the failed backup left %s" % os.listdir(os.path.dirname(session.backup_root)))
    log("backup root is a file: the alert came twice, once for the key and once for the button")
    quit_program(session)


def preferences_not_writable(session):
    """Pelmora.json is a folder. Backups are made and listed; one alert says the settings could not be
    saved, once a session. At the next launch the list is empty and the unrecorded folders are gone.
    Then, in a new home, the obstacle goes after the first backup: the second saves both records."""
    session.make_home()
    os.makedirs(session.prefs)
    session.start_program(log_name="pelmora-prefs-folder.log")
    session.wait_main_window()

    session.step = "backing up with settings that cannot be written"
    alert = alert_after(session, lambda: session.key(session.main, "ctrl+b"), "the settings-not-saved alert",
                        "prefs-alert")
    check_alert(session, alert, english_text("alertPreferencesNotSavedMessage"), not_written(re.escape(session.prefs), errno.EISDIR))
    dismiss(session, alert, "the settings-not-saved alert")
    wait_progress_gone(session)
    first = backup_folders(session)
    if len(first) != 1 or not os.path.exists(os.path.join(session.backup_root, first[0] + UNFINISHED)):
        raise Failure("expected one backup folder with its unfinished mark, the root holds %s" % root_entries(session))
    session.select_row(1, "prefs-row-1")

    session.step = "backing up a second time with settings that cannot be written"
    time.sleep(1.1)  # another second, another folder
    known = set(session.visible_windows("Pelmora"))
    session.key(session.main, "ctrl+b")
    wait_for("the second backup's folder", lambda: len(backup_folders(session)) == 2)
    wait_progress_gone(session)
    hold("a second settings-not-saved alert came in the same session",
         lambda: not [w for w in session.visible_windows("Pelmora") if w not in known], 2.0)
    session.select_row(2, "prefs-row-2")
    if len(unfinished_marks(session)) != 2:
        raise Failure("expected both unrecorded folders marked unfinished, the root holds %s" % root_entries(session))
    quit_program(session)

    session.step = "launching again with settings that cannot be read"
    session.start_program(log_name="pelmora-prefs-folder-again.log")
    session.wait_main_window()
    wait_for("the unrecorded backup folders and their marks to be removed at launch",
             lambda: not root_entries(session), timeout=10)
    log("settings not writable: %.1f s after launch the unrecorded folders are gone" % (
        time.monotonic() - session.started_at))
    session.check_table_empty("prefs-relaunched-empty")
    quit_program(session)

    session.step = "backing up, then clearing the settings' obstacle and backing up again"
    session.make_home()
    os.makedirs(session.prefs)
    session.start_program(log_name="pelmora-prefs-folder-removed.log")
    session.wait_main_window()
    alert = alert_after(session, lambda: session.key(session.main, "ctrl+b"), "the settings-not-saved alert",
                        "prefs-alert-then-removed")
    dismiss(session, alert, "the settings-not-saved alert")
    wait_progress_gone(session)
    os.rmdir(session.prefs)
    time.sleep(1.1)
    source = snapshot(session.icloud)
    started = time.time()
    session.key(session.main, "ctrl+b")
    records = session.wait_records(2, "both backups to be saved in %s" % session.prefs)
    finished = time.time()
    wait_progress_gone(session)
    folders = sorted(os.path.join(session.backup_root, name) for name in backup_folders(session))
    if sorted(record.get("BackupFolder") for record in records) != folders:
        raise Failure("the records name %s, the root holds %s" % ([r.get("BackupFolder") for r in records], folders))
    check_backup(session, records[1], started, finished, source)
    wait_for("the unfinished marks to come off once the records are saved", lambda: not unfinished_marks(session),
             timeout=5)
    log("settings writable again: both records saved, no marks left")
    quit_program(session)


def big_home(session):
    """A home with enough data that a copy lasts a while: 900 MB in big files, and many small ones,
    which cost the copy more per byte."""
    began = time.monotonic()
    session.make_home()
    write_bulk(os.path.join(session.drive, "Archive"), 1800, 512 * 1024)
    for n in range(20):
        write_bulk(os.path.join(session.drive, "Mail", "box-%02d" % n), 400, 2048)
    log("wrote 900 MB in 9,800 files in %.1f s" % (time.monotonic() - began))


def change_every_file(session):
    """A new modification time for every file of the iCloud folder: a backup made after another shares the
    files that did not change, and only a copy of changed files lasts long enough to be interrupted."""
    stamp = time.time()
    for folder, _, files in os.walk(session.drive):
        for name in files:
            os.utime(os.path.join(folder, name), (stamp, stamp))


def back_up_twice_at_once(session):
    """Ctrl+B again while a backup copies: one backup folder, one record naming it."""
    big_home(session)
    session.start_program(log_name="pelmora-big.log")
    session.wait_main_window()
    session.step = "pressing Ctrl+B again during a backup"
    began = time.monotonic()
    progress, folder = start_copying(session, "the first backup")
    copying = time.monotonic()
    session.key(session.main, "ctrl+b")
    if session.records() or not os.path.exists(folder + UNFINISHED):
        raise Failure("the copy had ended before Ctrl+B was pressed again: the iCloud folder is too small")
    records = session.wait_records(1, "the backup to be listed")
    wait_progress_gone(session)
    log("the backup took %.1f s, %.1f s of them after the copy began" % (
        time.monotonic() - began, time.monotonic() - copying))
    hold("a second backup started after the first",
         lambda: len(backup_folders(session)) == 1 and len(session.records() or []) == 1, 1.0)
    if records[0].get("BackupFolder") != folder:
        raise Failure("the record names %s, the copy went to %s" % (records[0].get("BackupFolder"), folder))
    if root_entries(session) != [os.path.basename(folder)]:
        raise Failure("the backup root holds %s" % root_entries(session))
    log("Ctrl+B during the copy: one folder, one record")


def cancel_backups(session):
    """Escape in the progress window, then its close button: each cancels the copy, and the folder goes."""
    for how, name in (("Escape", "cancelled-with-escape"), ("the close button", "cancelled-with-close")):
        session.step = "cancelling a backup with %s" % how
        before_entries, before_records = root_entries(session), session.records()
        change_every_file(session)
        progress, folder = start_copying(session, "the backup to cancel")
        if how == "Escape":
            session.key(progress, "Escape")
        else:
            session.close_window(progress)
        wait_progress_gone(session)
        if root_entries(session) != before_entries:
            raise Failure("after the cancel by %s the root holds %s, before it held %s" % (
                how, root_entries(session), before_entries))
        if session.records() != before_records:
            raise Failure("the cancelled backup changed the list: %s" % session.records())
        session.shot(session.main, name)
        log("cancelled by %s: %s and its mark are gone, the list is unchanged" % (how, os.path.basename(folder)))


def terminated_during_backup(session):
    """SIGTERM during a copy: the program ends within two seconds, and the folder it was filling goes."""
    session.step = "sending SIGTERM during a backup"
    before_entries, before_records = root_entries(session), session.records()
    change_every_file(session)
    _, folder = start_copying(session, "the backup to terminate")
    sent = time.monotonic()
    os.kill(session.program.pid, signal.SIGTERM)
    try:
        status = session.program.wait(timeout=2.0)
    except subprocess.TimeoutExpired:
        raise Failure("Pelmora was still running 2 s after SIGTERM")
    ended = time.monotonic() - sent
    if status != 0:
        raise Failure("Pelmora ended with status %d after SIGTERM" % status)
    if root_entries(session) != before_entries:
        raise Failure("after SIGTERM the root holds %s, before it held %s" % (root_entries(session), before_entries))
    if session.records() != before_records:
        raise Failure("the terminated backup changed the list: %s" % session.records())
    log("SIGTERM during the copy: ended after %.2f s, %s and its mark are gone" % (ended, os.path.basename(folder)))
    session.start_program(log_name="pelmora-after-term.log")
    session.wait_main_window()


def killed_during_backup(session):
    """SIGKILL during a copy leaves a marked partial folder; the next launch removes both."""
    session.step = "killing Pelmora during a backup"
    before_entries, before_records = root_entries(session), session.records()
    change_every_file(session)
    _, folder = start_copying(session, "the backup to kill")
    os.kill(session.program.pid, signal.SIGKILL)
    session.program.wait(timeout=TIMEOUT)
    if not os.path.isdir(folder) or not os.path.exists(folder + UNFINISHED):
        raise Failure("after SIGKILL the root holds %s, expected %s and its mark" % (
            root_entries(session), os.path.basename(folder)))
    copied = len(tree(folder)[0])
    log("killed during the copy: %s holds %d files and is marked" % (os.path.basename(folder), copied))

    session.step = "launching again after the kill"
    session.start_program(log_name="pelmora-after-kill.log")
    session.wait_main_window()
    wait_for("the partial folder and its mark to be removed at launch",
             lambda: root_entries(session) == before_entries, timeout=10)
    log("%.1f s after launch the partial folder and its mark are gone" % (time.monotonic() - session.started_at))
    if session.records() != before_records:
        raise Failure("the list changed: %s, before %s" % (session.records(), before_records))
    quit_program(session)


def big_copies(session):
    back_up_twice_at_once(session)
    cancel_backups(session)
    terminated_during_backup(session)
    killed_during_backup(session)


SCENARIOS = [
    ("back up, Get Info, restore, delete", back_up_inspect_restore_delete),
    ("not enough space", not_enough_space),
    ("unreadable items", unreadable_items),
    ("backup root is a file", root_is_a_file),
    ("settings cannot be written", preferences_not_writable),
    ("Ctrl+B again, cancel, SIGTERM, kill during a copy", big_copies),
]


def run(session):
    """Runs every scenario, each after the one before whatever its outcome; returns the failures."""
    session.start_xvfb()
    failures = []
    for title, scenario in SCENARIOS:
        if session.only and session.only.lower() not in title.lower():
            continue
        log("--- %s" % title)
        session.step = "starting"
        began = time.monotonic()
        try:
            scenario(session)
        except Failure as failure:
            failures.append("%s, while %s: %s" % (title, session.step, failure))
            report(session, title, failure)
        finally:
            session.stop_program()
            session.unmount_all()
        log("--- %s: %.1f s" % (title, time.monotonic() - began))
    return failures


def report(session, title, failure):
    print("e2e: FAILED %s while %s: %s" % (title, session.step, failure), flush=True)
    if session.program_log:
        session.program_log.flush()
        with open(session.program_log.name, "rb") as source:
            tail = source.read()[-3000:].decode(errors="replace").strip()
        if tail:
            print("e2e: Pelmora's output (%s):\n%s" % (os.path.basename(session.program_log.name), tail), flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--program", default=os.path.join(ROOT, "build", "Pelmora"))
    parser.add_argument("--output", help="folder for the screenshots and logs (default: a new one in /tmp)")
    parser.add_argument("--save-docs-screenshots", action="store_true",
                        help="also write docs/screenshots/inspector-en.png and progress-en.png")
    parser.add_argument("--only", metavar="WORDS", help="run only the cases whose title contains WORDS")
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
    session.only = arguments.only
    began = time.monotonic()
    try:
        failures = run(session)
    except Failure as failure:
        failures = ["while %s: %s" % (session.step, failure)]
        report(session, "starting", failure)
    finally:
        session.cleanup()
    if failures:
        print("e2e: FAILED in %.1f s: %d of the cases failed:" % (time.monotonic() - began, len(failures)))
        for failure in failures:
            print("e2e:   " + failure)
        print("e2e: screenshots and logs are in %s" % output)
        return 1
    log("PASSED in %.1f s (%d screenshots in %s)" % (time.monotonic() - began, session.shots, output))
    return 0


if __name__ == "__main__":
    sys.exit(main())
