#!/usr/bin/env python3
"""Fails on what mandoc has to complain of in the manual pages. Argument: the folder of tarnwell-pages.

Exit status 77 where mandoc is not installed.
"""
import pathlib
import re
import shutil
import subprocess
import sys

if shutil.which("mandoc") is None:
    print("skipped: mandoc is not installed")
    sys.exit(77)
pages = sorted(pathlib.Path(sys.argv[1]).glob("man/*.1"))
if len(pages) < 20:
    sys.exit(f"there are {len(pages)} pages, and more verbs than that")
checked = subprocess.run(["mandoc", "-T", "lint", "-W", "style", *pages], capture_output=True, text=True, check=False)
# How long the lines of the source are, and that a page is not installed, is no matter of style here.
complaints = [line for line in (checked.stdout + checked.stderr).splitlines()
              if "input text line longer" not in line and "referenced manual not found" not in line]
for page in pages:
    shown = subprocess.run(["mandoc", "-T", "utf8", page], capture_output=True, text=True, check=True).stdout
    # Printed over itself is bold or underlined.
    text = re.sub(".\b", "", shown)
    for heading in ("NAME", "SYNOPSIS", "OPTIONS", "EXIT STATUS", "SEE ALSO"):
        if heading not in text.splitlines():
            complaints.append(f"{page.name}: no heading {heading}")
print("\n".join(complaints))
sys.exit(1 if complaints else 0)
