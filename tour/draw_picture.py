#!/usr/bin/env python3
"""Draws docs/at-work.svg: what a terminal shows of a few commands on a fresh sample device.

    tour/draw_picture.py BUILD_FOLDER      (with tarnwell and tarnwell-tour in it)
"""

import html
import os
import pty
import re
import subprocess
import sys
import tempfile

COLUMNS, LINE, LEFT, CHARACTER = 90, 19, 18, 8.43
COLORS = {"31": "#e06c75", "32": "#98c379", "33": "#e5c07b", "34": "#61afef", "35": "#c678dd", "36": "#56b6c2"}
# What is typed, and what is run for it.
STEPS = [
    ("tarnwell ls root", "tarnwell ls root"),
    ("tarnwell search trip", "tarnwell search trip"),
    ("mv ~/.var/app/org.example.Notes/Documents/Journal ~/Documents/", "mv {notes}/Journal {home}/Documents/"),
    ("tarnwell path {trip}", "tarnwell path {trip}"),
    ("tarnwell changes root --follow", "timeout -s INT 4 tarnwell changes root --follow & sleep 2; "
     "echo done >> {home}/Documents/Journal/2024/March/Trip.md; wait"),
]


def run(command, environment):
    """The output as a terminal gets it."""
    parent, child = pty.openpty()
    process = subprocess.Popen(["bash", "-c", command], stdin=child, stdout=child, stderr=child, env=environment)
    os.close(child)
    output = b""
    while True:
        try:
            part = os.read(parent, 65536)
        except OSError:  # the terminal's other end is closed
            break
        if not part:
            break
        output += part
    process.wait()
    os.close(parent)
    return output.decode().replace("\r\n", "\n").rstrip("\n")


def spans(line):
    """(style, text) of a line with the escape sequences for colours, as far as it fits."""
    style, room = "", COLUMNS
    for part in re.split(r"(\x1b\[[0-9;]*m)", line):
        code = re.fullmatch(r"\x1b\[([0-9;]*)m", part)
        if not code:
            if part and room > 0:
                yield style, part if len(part) <= room else part[: room - 1] + "…"
            room -= len(part)
            continue
        style = ""
        for number in code[1].split(";"):
            if number in COLORS:
                style += f' fill="{COLORS[number]}"'
            elif number == "1":
                style += ' font-weight="bold"'
            elif number == "2":
                style += ' fill="#7f8896"'


def draw(lines):
    height = LINE * len(lines) + 30
    width = int(COLUMNS * CHARACTER) + 2 * LEFT
    yield f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" viewBox="0 0 {width} {height}">'
    yield f'<rect width="{width}" height="{height}" rx="8" fill="#1f2329"/>'
    yield '<g font-family="DejaVu Sans Mono, Menlo, Consolas, monospace" font-size="14" fill="#d7dae0">'
    for number, line in enumerate(lines):
        text = "".join(f"<tspan{style}>{html.escape(part)}</tspan>" for style, part in spans(line))
        yield f'<text x="{LEFT}" y="{24 + LINE * number}" xml:space="preserve">{text}</text>'
    yield "</g>"
    yield "</svg>"


def main():
    build = os.path.abspath(sys.argv[1])
    target = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "docs", "at-work.svg")
    with tempfile.TemporaryDirectory() as folder:
        device = os.path.join(folder, "device")
        subprocess.run([build + "/tarnwell-tour", device, build + "/tarnwell"], check=True, stdout=subprocess.DEVNULL)
        shown = subprocess.run(["bash", "-c", f"source {device}/env.sh; env -0"], check=True, capture_output=True)
        environment = dict(entry.split("=", 1) for entry in shown.stdout.decode().split("\0") if entry)
        environment |= {"TERM": "xterm-256color", "PATH": build + ":/usr/bin:/bin", "COLUMNS": str(COLUMNS)}
        environment.pop("NO_COLOR", None)
        home = environment["HOME"]
        names = {"home": home, "notes": home + "/.var/app/org.example.Notes/Documents"}
        lines = []
        for typed, command in STEPS:
            output = run(command.format(**names), environment).replace(home, "~")
            lines.append("\x1b[32m$\x1b[0m " + typed.format(**names))
            lines += (output.split("\n") if output else []) + [""]
            if found := re.search(r"did=\d+", output):
                names.setdefault("trip" if "search" in typed else "unused", found[0])
    with open(target, "w", encoding="utf-8") as file:
        file.write("\n".join(draw(lines[:-1])) + "\n")


if __name__ == "__main__":
    main()
