#!/usr/bin/env python3
"""Asks real shells to complete the command line, on a terminal, and fails where the result is not what was meant.

Arguments: the folder of tarnwell-pages, the program, the shell. Exit status 77 where the shell is not installed.

Each case is a line, and what its words are once the shell has completed and then parsed it: a name that the shell would
take apart, expand or run shows as wrong words.
"""
import os
import pathlib
import pty
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import device  # noqa: E402

UNCHANGED = object()
CASES = [
    # Verbs and options.
    ("tarnwell sea", ["search"]),
    ("tarnwell --json default", ["--json", "default-container"]),
    ("tarnwell --stor", ["--storage"]),
    ("tarnwell ls --rec", ["ls", "--recursive"]),
    ("tarnwell ls --js", ["ls", "--json"]),
    ("tarnwell __lib", UNCHANGED),
    # Words as values.
    ("tarnwell ls --sort d", ["ls", "--sort", "date"]),
    ("tarnwell ls --sort=d", ["ls", "--sort=date"]),
    ("tarnwell ls -s n", ["ls", "-s", "name"]),
    ("tarnwell search report --sort rel", ["search", "report", "--sort", "relevance"]),
    # Identifiers and words for containers.
    ("tarnwell ls \\#org", ["ls", device.LIBRARY]),
    ("tarnwell ls '#org", ["ls", device.LIBRARY]),
    ("tarnwell info work", ["info", "workingset"]),
    ("tarnwell search --in \\#o", ["search", "--in", device.LIBRARY]),
    ("tarnwell default-container org.ex", ["default-container", "org.example.Notes"]),
    ("tarnwell import plain.txt \\#org", ["import", "plain.txt", device.LIBRARY]),
    # Files.
    ("tarnwell info My", ["info", device.NAMES[0]]),
    ("tarnwell info it", ["info", device.NAMES[1]]),
    ("tarnwell info two", ["info", device.NAMES[7]]),
    ("tarnwell info Ü", ["info", device.NAMES[8]]),
    ("tarnwell info back", ["info", device.NAMES[11]]),
    ("tarnwell info star", ["info", device.NAMES[12]]),
    ("tarnwell info ./-r", ["info", "./-rf"]),
    ("tarnwell info ~/Documents/pl", ["info", "{home}/Documents/plain.txt"]),
    ("tarnwell --json info pl", ["--json", "info", "plain.txt"]),
    ("tarnwell --storage Su", ["--storage", "Sub folder/"]),
    ("tarnwell ls Sub", ["ls", "Sub folder/"]),
    ("tarnwell import it", ["import", device.NAMES[1]]),
    ("tarnwell trash plain.txt My", ["trash", "plain.txt", device.NAMES[0]]),
    ("tarnwell info -- My", ["info", "--", device.NAMES[0]]),
    # Nothing that a shell knows.
    ("tarnwell mkdir pl", UNCHANGED),
    ("tarnwell rename plain.txt My", UNCHANGED),
    ("tarnwell tag plain.txt My", UNCHANGED),
    ("tarnwell status My", UNCHANGED),
    ("tarnwell info did=1", UNCHANGED),
]


class Terminal:
    """A shell that is asked by keys. After each, it writes its command line into a file."""

    def __init__(self, command, setup, environment, folder, out):
        self.out = out
        self.shown = b""
        self.process, self.descriptor = pty.fork()
        if self.process == 0:
            os.chdir(folder)
            os.execve(command[0], command, environment)
        self.run(setup)

    def run(self, setup):
        """Lines of set-up; the last one makes a file when all is done."""
        ready = self.out.with_name("ready")
        script = self.out.with_name("setup")
        script.write_text(setup + f"\n: >'{ready}'\n", encoding="utf-8")
        self.send(f". '{script}'\r".encode())
        self.wait(ready)

    def send(self, keys):
        while keys:
            keys = keys[os.write(self.descriptor, keys):]

    def wait(self, path):
        deadline = time.monotonic() + 30
        while not path.exists():
            if time.monotonic() > deadline:
                raise SystemExit(f"the shell does not answer; it shows {self.shown[-2000:]!r}")
            if select.select([self.descriptor], [], [], 0.02)[0]:
                self.shown += os.read(self.descriptor, 65536)
        text = path.read_text(encoding="utf-8")
        path.unlink()
        return text

    def complete(self, line):
        self.send(line.encode() + b"\t" + b"\x18\x10")
        text = self.wait(self.out)
        self.send(b"\x05\x15")
        return text

    def end(self):
        os.kill(self.process, signal.SIGHUP)
        os.close(self.descriptor)
        os.waitpid(self.process, 0)


def bash(pages, program, environment, folder, scratch):
    out = scratch / "line"
    setup = f"""PATH='{program.parent}':$PATH PS1=
bind 'set bell-style none'; bind 'set enable-bracketed-paste off'; bind 'set page-completions off'
bind 'set completion-query-items 0'
bind -x '"\\C-x\\C-p": printf %s "$READLINE_LINE" >"{out}.new" && mv "{out}.new" "{out}"'
. '{pages}/tarnwell.bash'"""
    return Terminal(["/bin/bash", "--norc", "--noprofile", "-i"], setup, {**environment, "INPUTRC": "/dev/null"}, folder,
                    out).complete, ["/bin/bash", "--norc", "-c"]


def zsh(pages, program, environment, folder, scratch):
    out = scratch / "line"
    functions = scratch / "functions"
    functions.mkdir()
    shutil.copy(pages / "_tarnwell", functions)
    setup = f"""path=('{program.parent}' $path) PS1= RPS1= LISTMAX=100000
fpath=('{functions}' $fpath)
autoload -Uz compinit; compinit -u -D
unsetopt beep automenu; bindkey -e
line-to-file() {{ print -rn -- "$BUFFER" >'{out}.new' && command mv '{out}.new' '{out}' }}
zle -N line-to-file; bindkey '^X^P' line-to-file; bindkey '^I' complete-word"""
    return Terminal([shutil.which("zsh"), "-f", "-i"], setup, environment, folder, out).complete, \
        [shutil.which("zsh"), "-f", "-c"]


def fish(pages, program, environment, folder, scratch):
    """Fish tells what it would put there, quoted as it would; another one undoes that."""
    def complete(line):
        script = (f"set -x PATH '{program.parent}' $PATH; source '{pages}/tarnwell.fish'; "
                  "complete --escape -C \"$LINE\"")
        asked = subprocess.run(["fish", "--no-config", "-c", script], env={**environment, "LINE": line}, cwd=folder,
                               capture_output=True, timeout=60, check=False)
        if asked.stderr:
            raise SystemExit(f"{line}: fish says {asked.stderr.decode()}")
        found = [entry.split("\t")[0] for entry in asked.stdout.decode().splitlines()]
        if not found:
            return []
        parsed = subprocess.run(["fish", "--no-config", "-c", "printf '%s\\0' " + " ".join(found)], env=environment,
                                cwd=folder, capture_output=True, timeout=60, check=True)
        return parsed.stdout.decode().split("\0")[:-1]
    return complete, None


def words_of(shell, line, environment, folder):
    """The words as the shell parses the line, without running anything of it."""
    script = "tarnwell() { printf '%s\\0' \"$@\"; }\n" + line
    ran = subprocess.run([*shell, script], env=environment, cwd=folder, capture_output=True,
                         timeout=60, check=False)
    return ran.stdout.decode(errors="replace").split("\0")[:-1]


def main():
    pages, program, name = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve(), sys.argv[3]
    if shutil.which(name) is None:
        print(f"skipped: {name} is not installed")
        return 77
    complaints = []
    with tempfile.TemporaryDirectory() as temporary:
        scratch = pathlib.Path(temporary)
        environment = device.make(scratch / "home")
        folder = scratch / "home/Documents"
        subprocess.run([program, "apps"], env=environment, check=True, capture_output=True)
        complete, parser = {"bash": bash, "zsh": zsh, "fish": fish}[name](pages, program, environment, folder, scratch)
        for line, expected in CASES:
            completed = complete(line)
            if expected is not UNCHANGED:
                expected = [word.format(home=environment["HOME"]) if "{home}" in word else word for word in expected]
            complaint = check(name, line, completed, expected, parser, environment, folder)
            if complaint:
                complaints.append(complaint)
        complaints += check_listing(name, complete)
        if (folder / "ran").exists():
            complaints.append("something that a file name says was run")
    print("\n".join(complaints))
    return 1 if complaints else 0


def check(name, line, completed, expected, parser, environment, folder):
    if name == "fish":
        if expected is UNCHANGED:
            return f"{line!r} is completed: {completed}" if completed else None
        last = expected[-1]
        fits = completed == [last]
        return None if fits else f"{line!r}: {completed} instead of {last!r}"
    if expected is UNCHANGED:
        return None if completed.rstrip() == line else f"{line!r} is completed: {completed!r}"
    words = words_of(parser, completed, environment, folder)
    # Zsh shows that a value may stand right behind.
    if name == "zsh" and words and words[-1] == expected[-1] + "=":
        words[-1] = expected[-1]
    return None if words == expected else f"{line!r}: {completed!r} has the words {words} instead of {expected}"


def check_listing(name, complete):
    """With nothing typed, what would be mistaken is not offered; only fish can be asked for a list."""
    if name != "fish":
        return []
    offered = complete("tarnwell info ")
    complaints = [f"an empty word: {word!r} is not offered" for word in
                  (device.LIBRARY, "workingset", "plain.txt", "Sub folder/")
                  if word not in offered]
    complaints += [f"an empty word: {word!r} is offered" for word in ("-rf", "--storage", "#hash", "did=17") if word in offered]
    verbs = complete("tarnwell ")
    if "ls" not in verbs or "plain.txt" in verbs:
        complaints.append(f"the verbs are {verbs}")
    return complaints


if __name__ == "__main__":
    sys.exit(main())
