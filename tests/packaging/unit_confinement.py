#!/usr/bin/env python3
"""Runs the program with the system calls that the unit allows, and fails where something does not work any more.

Arguments: the unit, test-confined, the program. Exit status 77 where systemd-analyze, which knows what the unit's groups of
calls stand for, is not there.
"""
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import device  # noqa: E402


def groups():
    """Names of groups -> what each lists."""
    found, current = {}, None
    said = subprocess.run(["systemd-analyze", "syscall-filter"], capture_output=True, text=True, check=False)
    if said.returncode != 0:
        print(f"skipped: {said.stderr.strip()}")
        sys.exit(77)
    for line in said.stdout.splitlines():
        word = line.strip()
        if line.startswith("@"):
            current = found.setdefault(word, [])
        elif current is not None and line.startswith(" ") and not word.startswith("#"):
            current.append(word)
    return found


def expanded(name, known):
    if not name.startswith("@"):
        return {name}
    if name not in known:
        raise SystemExit(f"there is no group {name}")
    return set().union(*(expanded(member, known) for member in known[name]))


def allowed(unit, known):
    lines = [line.partition("=")[2].strip() for line in unit.splitlines() if line.startswith("SystemCallFilter=")]
    if not lines or lines[0].startswith("~"):
        raise SystemExit("the unit does not begin with what is allowed")
    calls = expanded("@default", known)
    for line in lines:
        named = set().union(*(expanded(name, known) for name in line.lstrip("~").split()))
        calls = calls - named if line.startswith("~") else calls | named
    return calls


def main():
    if shutil.which("systemd-analyze") is None:
        print("skipped: systemd-analyze is not installed")
        return 77
    unit, confined, program = sys.argv[1], sys.argv[2], sys.argv[3]
    calls = allowed(pathlib.Path(unit).read_text(encoding="utf-8"), groups())
    with tempfile.TemporaryDirectory() as temporary:
        scratch = pathlib.Path(temporary)
        environment = device.make(scratch / "home")
        documents, notes = scratch / "home/Documents", scratch / "home/Apps/Notes/Documents"
        # A folder that a group shares, and a program in it: copies have the same permissions.
        (scratch / "shared").mkdir()
        (scratch / "shared/program").write_text("#!/bin/true\n", encoding="utf-8")
        (scratch / "shared/program").chmod(0o4755)
        (scratch / "shared").chmod(0o2775)

        def run(*arguments, calls_left=calls):
            names = scratch / "names"
            names.write_text("".join(f"{call}\n" for call in sorted(calls_left)), encoding="utf-8")
            return subprocess.run([confined, names, program, *arguments], env=environment, capture_output=True,
                                  text=True, timeout=120, check=False)

        failed = []
        for command in (["apps"], ["ls", "root", "-r"], ["search", "plain"], ["import", scratch / "shared", device.LIBRARY],
                        ["mkdir", "New", device.LIBRARY], ["move", documents / "plain.txt", device.LIBRARY],
                        ["trash", notes / "shared/program"], ["clean-trash", "--older-than", "0d"],
                        ["delete", documents / "a=b:c.txt"], ["tag", notes / "plain.txt", "urgent"],
                        ["used", notes / "plain.txt", "now"], ["thumbnail", device.LIBRARY, "-o", scratch / "icon.png"],
                        ["refresh"], ["status"], ["anchor"]):
            ran = run(*command)
            if ran.returncode != 0:
                failed.append(f"{' '.join(map(str, command))}: {ran.returncode}: {ran.stderr}")
        if (notes / "shared").stat().st_mode & 0o7777 != 0o2775:
            failed.append("the copy of a shared folder has other permissions")
        if "urgent" not in run("info", notes / "plain.txt").stdout:
            failed.append("a tag was not kept")
        free = subprocess.run([program, "status"], env=environment, capture_output=True, text=True, check=True).stdout
        status = run("status").stdout
        failed += [f"{source} is forbidden: {status}" for source in ("fanotify", "inotify")
                   if source in free and source not in status]
        # The harness itself: without what makes a new name, nothing can be made.
        if run("mkdir", "Other", device.LIBRARY, calls_left=calls - {"mkdir", "mkdirat"}).returncode == 0:
            failed.append("a folder was made although the calls for that were forbidden")
    print("\n".join(failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
