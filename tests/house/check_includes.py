#!/usr/bin/env python3
"""Fails on every include below src/ that docs/arrows.txt does not allow, and on circles among the arrows."""
import pathlib
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')
# Headers of C, POSIX and Linux come with a ".h" and no package of their own.
SYSTEM_PREFIXES = {"sys", "linux", "asm", "arpa", "net", "netinet"}
C_HEADERS_OF_CXX = re.compile(r"^[a-z0-9_]+$")  # <vector>, <cstdint>: no dot


def read_arrows(text):
    """folder -> (set of folders, set of third-party names)"""
    arrows = {}
    for number, line in enumerate(text.splitlines(), 1):
        line = line.split("#", 1)[0].strip()
        if not line:
            continue
        match = re.fullmatch(r"([\w/]+):([^|]*)\|(.*)", line)
        if not match:
            raise SystemExit(f"arrows line {number} is not 'folder: folders | third party': {line}")
        folder = match.group(1)
        if folder in arrows:
            raise SystemExit(f"arrows line {number} names {folder} again")
        arrows[folder] = (set(match.group(2).split()), set(match.group(3).split()))
    return arrows


def folder_of(path, arrows):
    """The longest folder with a line of its own that holds the path."""
    parts = path.split("/")[:-1]
    while parts:
        name = "/".join(parts)
        if name in arrows:
            return name
        parts.pop()
    return None


def within(folder, allowed):
    return any(folder == name or folder.startswith(name + "/") for name in allowed)


def find_circle(arrows):
    """A list of folders that lead back to the first, or None."""
    state = {}

    def visit(folder, trail):
        state[folder] = "open"
        for allowed in sorted(arrows[folder][0]):
            for target in (f for f in arrows if within(f, {allowed})):
                if target == folder:
                    continue
                if state.get(target) == "open":
                    return trail + [folder, target]
                if target not in state:
                    circle = visit(target, trail + [folder])
                    if circle:
                        return circle
        state[folder] = "done"
        return None

    for folder in arrows:
        if folder not in state:
            circle = visit(folder, [])
            if circle:
                return circle
    return None


def third_party_name(header):
    """Its name in the arrows; None for the C++ standard library."""
    first = header.split("/", 1)[0]
    if "/" not in header and C_HEADERS_OF_CXX.fullmatch(header):
        return None
    if first in SYSTEM_PREFIXES:
        return "system"
    if "/" in header:
        return first
    if header in ("sqlite3.h", "glib.h", "cairo.h", "png.h", "seccomp.h"):
        return header.removesuffix(".h") if header == "glib.h" else header
    return "system"


def check(source, arrows):
    """Complaints about the tree `source`, the folder that includes are relative to."""
    complaints = []
    circle = find_circle(arrows)
    if circle:
        complaints.append("the arrows form a circle: " + " -> ".join(circle))
    for path in sorted(source.rglob("*")):
        if path.suffix not in (".h", ".cpp") or not path.is_file():
            continue
        relative = path.relative_to(source).as_posix()
        folder = folder_of(relative, arrows)
        if folder is None:
            complaints.append(f"{relative}: its folder has no line in the arrows")
            continue
        allowed, third_party = arrows[folder]
        for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
            match = INCLUDE.match(line)
            if not match:
                continue
            where = f"{relative}:{number}: {folder}"
            quote, header = match.groups()
            if quote == '"':
                target = folder_of(header, arrows)
                if not (source / header).is_file():
                    complaints.append(f"{where} includes {header}, which is no path below src/")
                elif target is None or (target != folder and not within(target, allowed)):
                    complaints.append(f"{where} may not include {header}")
            else:
                name = third_party_name(header)
                if name is not None and name not in third_party:
                    complaints.append(f"{where} may not include <{header}> ({name})")
    return complaints


def main():
    project = pathlib.Path(sys.argv[1])
    arrows = read_arrows((project / "docs" / "arrows.txt").read_text(encoding="utf-8"))
    complaints = check(project / "src", arrows)
    for complaint in complaints:
        print(complaint)
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
