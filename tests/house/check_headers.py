#!/usr/bin/env python3
"""Fails on a header that does not compile alone or does not guard itself.

A header that its own source includes first compiles alone already: the build has shown it. The others are tried here.
Arguments: the project's folder, the compiler.
"""
import concurrent.futures
import pathlib
import re
import subprocess
import sys

PACKAGES = ["gio-2.0", "gio-unix-2.0", "libsystemd", "sqlite3", "fmt", "spdlog"]


def first_include(source):
    for line in source.read_text(encoding="utf-8").splitlines():
        match = re.match(r'\s*#\s*include\s*[<"]([^>"]+)[>"]', line)
        if match:
            return match.group(1)
    return None


def main():
    project, compiler = pathlib.Path(sys.argv[1]), sys.argv[2]
    flags = subprocess.run(["pkg-config", "--cflags", *PACKAGES], check=True, capture_output=True, text=True)
    command = [compiler, "-std=c++23", "-fsyntax-only", "-Wall", "-Wextra", "-Werror",
               f"-I{project / 'src'}", f"-I{project}", *flags.stdout.split(), "-x", "c++"]
    complaints, unproven = [], []
    for folder, base in ((project / "src", project / "src"), (project / "testing", project), (project / "tour", project)):
        for header in sorted(folder.rglob("*.h")):
            if "#pragma once" not in header.read_text(encoding="utf-8").splitlines():
                complaints.append(f"{header.relative_to(project)}: no #pragma once")
            source = header.with_suffix(".cpp")
            if not source.is_file() or first_include(source) != header.relative_to(base).as_posix():
                unproven.append(header)

    def try_header(header):
        # Included, not compiled itself: a main file may not say "#pragma once".
        result = subprocess.run([*command, "-"], input=f'#include "{header}"\n', capture_output=True, text=True)
        return None if result.returncode == 0 else f"{header.relative_to(project)}: does not compile alone\n{result.stderr}"

    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        complaints += [complaint for complaint in pool.map(try_header, unproven) if complaint]
    print("\n".join(complaints) or f"{len(unproven)} headers compiled alone, the others by their sources")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
