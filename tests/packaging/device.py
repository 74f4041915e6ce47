"""A device of one person for tests of what is installed: a home with documents and one application that keeps some."""
import pathlib

LIBRARY = "#org.example.Notes"
# What a shell can get wrong. One of them makes the file "ran" where a shell runs what stands in it.
NAMES = ["My quarterly report.txt", "it's \"quoted\" & $(touch ran) `touch ran`; (draft).txt", "-rf", "--storage", "#hash",
         "root", "did=17", "two\nlines.txt", "Übersicht.txt", "plain.txt", "a=b:c.txt", "back\\slash.txt", "star * ?.txt"]


def make(home):
    """Makes it below the folder `home` and gives the environment of its programs."""
    home = pathlib.Path(home)
    for folder in ("Documents/Sub folder", "Apps/Notes/Documents", ".local/share/applications"):
        (home / folder).mkdir(parents=True)
    for name in NAMES:
        (home / "Documents" / name).write_text("content\n", encoding="utf-8")
    (home / "Apps/Notes/Documents/note.txt").write_text("a note\n", encoding="utf-8")
    (home / ".local/share/applications/org.example.Notes.desktop").write_text(
        "[Desktop Entry]\nType=Application\nName=Notes\nExec=true\n"
        "X-Tarnwell-DataContainer=~/Apps/Notes\nX-Tarnwell-SupportsDocumentBrowser=true\n", encoding="utf-8")
    return {"HOME": str(home), "PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8", "TERM": "xterm",
            "XDG_DATA_DIRS": str(home / "nothing"), "FLATPAK_SYSTEM_DIR": str(home / "nothing"),
            "FLATPAK_CONFIG_DIR": str(home / "nothing"), "XDG_RUNTIME_DIR": str(home)}
