#!/usr/bin/env python3
"""Fails where a folder below src/ that holds sources has no README.md, or one that is too long to be read."""
import pathlib
import sys

project = pathlib.Path(sys.argv[1])
complaints = []
for folder in [project / "src", *sorted(p for p in (project / "src").rglob("*") if p.is_dir())]:
    readme = folder / "README.md"
    if not readme.is_file():
        complaints.append(f"{folder.relative_to(project)}: no README.md")
    elif not 1 <= len([line for line in readme.read_text(encoding="utf-8").splitlines() if line.strip()]) <= 12:
        complaints.append(f"{readme.relative_to(project)}: says nothing, or more than a dozen lines")
print("\n".join(complaints))
sys.exit(1 if complaints else 0)
