#!/usr/bin/env python3
"""Starts the real program under Xvfb with a sample home (an iCloud folder and three backups) and saves
screenshots of its main window, in English and German, at the default size and enlarged."""

import json
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import zlib

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PROGRAM = os.path.join(ROOT, "build", "Pelmora")
OUT = os.path.join(ROOT, "docs", "screenshots")


def sample_home(home):
    icloud = os.path.join(home, "Library", "Mobile Documents")
    for container, files in {"com~apple~CloudDocs": 40, "iCloud~com~example~Notes": 12,
                             "ABCDE12345~com~example~Sketch": 5}.items():
        os.makedirs(os.path.join(icloud, container, "Documents"))
        for n in range(files):
            with open(os.path.join(icloud, container, "Documents", "file-%d.txt" % n), "wb") as out:
                out.write(b"x" * (30000 * (n + 1)))
    backups = [("2026-09-14T09:12:44.000+02:00", 812345678), ("2026-10-30T18:03:10.000+01:00", 1023456789),
               ("2026-11-21T21:47:05.000+01:00", 1187654321)]
    records = [{"BackupDate": date, "BackupFolder": os.path.join(home, ".local/share/Pelmora", date[:19]),
                "BackupSize": size} for date, size in backups]
    config = os.path.join(home, ".config", "Pelmora")
    os.makedirs(config)
    with open(os.path.join(config, "Pelmora.json"), "w") as out:
        json.dump({"Backups": records}, out, indent=4)


def xwd_to_png(data, path):
    """Converts a 24/32-bit ZPixmap window dump to PNG."""
    header = struct.unpack(">25I", data[:100])
    header_size, width, height = header[0], header[4], header[5]
    bits_per_pixel, bytes_per_line, ncolors = header[11], header[12], header[19]
    byte_order = header[7]
    if bits_per_pixel != 32:
        sys.exit("unexpected window dump depth %d" % bits_per_pixel)
    pixels = data[header_size + ncolors * 12:]
    rows = []
    for y in range(height):
        line = pixels[y * bytes_per_line:y * bytes_per_line + width * 4]
        out = bytearray(b"\x00")
        for x in range(width):
            b, g, r = (line[4 * x], line[4 * x + 1], line[4 * x + 2]) if byte_order == 0 else \
                      (line[4 * x + 3], line[4 * x + 2], line[4 * x + 1])
            out += bytes((r, g, b))
        rows.append(bytes(out))

    def chunk(kind, body):
        return struct.pack(">I", len(body)) + kind + body + struct.pack(">I", zlib.crc32(kind + body) & 0xffffffff)

    png = b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0))
    png += chunk(b"IDAT", zlib.compress(b"".join(rows), 9)) + chunk(b"IEND", b"")
    with open(path, "wb") as out:
        out.write(png)


def capture(display, window, path):
    dump = subprocess.run(["xwd", "-silent", "-id", window, "-display", display], stdout=subprocess.PIPE,
                          check=True).stdout
    xwd_to_png(dump, path)
    print("wrote", os.path.relpath(path, ROOT))


def shoot(language, display, sizes):
    home = tempfile.mkdtemp(prefix="pelmora-", dir="/tmp")
    try:
        sample_home(home)
        env = dict(os.environ, HOME=home, XDG_CONFIG_HOME=os.path.join(home, ".config"),
                   XDG_DATA_HOME=os.path.join(home, ".local", "share"), DISPLAY=display,
                   LANGUAGE=language, LANG="%s.UTF-8" % {"en": "en_GB", "de": "de_DE"}[language])
        env.pop("QT_QPA_PLATFORM", None)
        program = subprocess.Popen([PROGRAM], env=env, stderr=subprocess.DEVNULL)
        try:
            window = subprocess.run(["xdotool", "search", "--sync", "--onlyvisible", "--name", "^Pelmora$"],
                                    env=env, stdout=subprocess.PIPE, check=True, timeout=30).stdout.split()[0]
            window = window.decode()
            for suffix, size in sizes:
                if size:
                    subprocess.run(["xdotool", "windowmove", window, "0", "0"], env=env, check=True)
                    subprocess.run(["xdotool", "windowsize", window, str(size[0]), str(size[1])], env=env, check=True)
                time.sleep(1.5)  # the size is measured in the background; let it land and the window settle
                capture(display, window, os.path.join(OUT, "main-window-%s%s.png" % (language, suffix)))
        finally:
            program.terminate()
            program.wait()
    finally:
        shutil.rmtree(home, ignore_errors=True)


def main():
    os.makedirs(OUT, exist_ok=True)
    display = ":%d" % (90 + os.getpid() % 9)
    xvfb = subprocess.Popen(["Xvfb", display, "-screen", "0", "1600x1000x24", "-nolisten", "tcp"],
                            stderr=subprocess.DEVNULL)
    try:
        time.sleep(1.0)
        shoot("en", display, [("", None), ("-large", (980, 640))])
        shoot("de", display, [("", None), ("-large", (980, 640))])
    finally:
        xvfb.terminate()
        xvfb.wait()


if __name__ == "__main__":
    main()
