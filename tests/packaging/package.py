#!/usr/bin/env python3
"""Installs the package into a copy of this machine that lasts as long as the test, uses it, removes and purges it.

Arguments: the project's folder, the build to pack (its targets are up to date), a scratch folder. Exit status 77 with the
reason where that cannot be done: it needs root, overlay mounts, cpack and dpkg.

The copy is an overlay over the root file system, its upper layer in memory, in a mount namespace of its own: nothing of this
machine changes, and all is gone with the last process of the test.
"""
import hashlib
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import device  # noqa: E402

INSTALLED = [
    "usr/bin/tarnwell", "usr/libexec/tarnwell/tarnwell-render-icon",
    "usr/share/dbus-1/services/org.tarnwell.Host1.service", "usr/share/dbus-1/interfaces/org.tarnwell.Host1.xml",
    "usr/lib/systemd/user/tarnwell.service", "usr/share/man/man1/tarnwell.1", "usr/share/man/man1/tarnwell-ls.1",
    "usr/share/bash-completion/completions/tarnwell", "usr/share/zsh/vendor-completions/_tarnwell",
    "usr/share/fish/vendor_completions.d/tarnwell.fish",
]


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(77)


def run(*command, **options):
    ran = subprocess.run(command, capture_output=True, text=True, check=False, **options)
    if ran.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))} ended with {ran.returncode}:\n{ran.stdout}{ran.stderr}")
    return ran.stdout


def pack(build, scratch):
    """The packages of the build, by name."""
    packages = scratch / "packages"
    shutil.rmtree(packages, ignore_errors=True)
    run("cpack", "-B", packages, cwd=build)
    found = {run("dpkg-deb", "--field", path, "Package").strip(): path for path in packages.glob("*.deb")}
    if found.keys() != {"tarnwell", "libtarnwell-client0", "libtarnwell-client-dev"}:
        sys.exit(f"the packages are {found}")
    return found


def check_package(path):
    depends = run("dpkg-deb", "--field", path, "Depends")
    for library in ("libsqlite3-0", "librsvg2-2", "libseccomp2", "libsystemd0", "libc6", "shared-mime-info"):
        if library not in depends:
            sys.exit(f"the package does not depend on {library}, only on {depends}")
    with tempfile.TemporaryDirectory() as control:
        run("dpkg-deb", "--control", path, control)
        further = {entry.name for entry in pathlib.Path(control).iterdir()} - {"control", "md5sums"}
        if further:
            sys.exit(f"the package has scripts or further files of control: {further}")
    for line in run("dpkg-deb", "--contents", path).splitlines():
        if " root/root " not in line:
            sys.exit(f"not owned by root: {line}")


def state_of(home):
    """Everything below a folder: kind, permissions, owner, times and content."""
    state = {}
    for path in sorted([home, *home.rglob("*")]):
        status = path.lstat()
        content = hashlib.sha256(path.read_bytes()).hexdigest() if path.is_file() and not path.is_symlink() else None
        state[str(path.relative_to(home))] = (status.st_mode, status.st_uid, status.st_gid, status.st_mtime_ns,
                                              os.readlink(path) if path.is_symlink() else content,
                                              {name: os.getxattr(path, name) for name in os.listxattr(path)})
    return state


PROGRAM = r"""
#include <tarnwell/client.h>

#include <cstdio>

int main() {
    try {
        tarnwell::client::Client client;
        for (const auto& item : client.listAll(tarnwell::client::kRoot)) std::printf("%s\n", item.identifier.c_str());
    } catch (const tarnwell::client::Error& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
"""


def wait_for_end(name):
    """Until no process of that name is left; the mount of /proc shows those of this test only."""
    deadline = time.monotonic() + 60
    while time.monotonic() < deadline:
        running = set()
        for process in pathlib.Path("/proc").glob("[0-9]*/stat"):
            try:
                command, _, state = process.read_text(encoding="utf-8").partition("(")[2].rpartition(")")
            except OSError:
                continue  # it has just ended
            # What has ended and is asked by nobody how, stays in the list.
            if not state.startswith(" Z"):
                running.add(command)
        if name not in running:
            return
        time.sleep(0.05)
    sys.exit(f"{name} does not end")


def check_library(scratch, environment):
    """A program of somebody else's is built with the library, and has the bus start the service."""
    run("dpkg", "--install", scratch / "libtarnwell-client0.deb", scratch / "libtarnwell-client-dev.deb")
    program, source = scratch / "program", scratch / "program.cpp"
    source.write_text(PROGRAM, encoding="utf-8")
    flags = run("pkg-config", "--cflags", "--libs", "tarnwell-client").split()
    run("c++", "-std=c++17", "-Wall", "-Wextra", "-Werror", "-o", program, source, *flags)
    if shutil.which("dbus-run-session") is None:
        print("without dbus-run-session the service was not started by a bus")
    else:
        listed = run("dbus-run-session", "--", program, env={**environment, "TARNWELL_LOG": "info"}, timeout=120)
        if device.LIBRARY not in listed.splitlines():
            sys.exit(f"the service lists {listed}")
        # Without its bus the service ends, too.
        wait_for_end("tarnwell")
    project = scratch / "project"
    project.mkdir()
    (project / "CMakeLists.txt").write_text(
        "cmake_minimum_required(VERSION 3.25)\nproject(program CXX)\nfind_package(tarnwell-client REQUIRED)\n"
        f"add_executable(program {source})\ntarget_link_libraries(program PRIVATE tarnwell::tarnwell-client)\n",
        encoding="utf-8")
    run("cmake", "-S", project, "-B", project / "build")
    run("cmake", "--build", project / "build")
    run("dpkg", "--purge", "libtarnwell-client-dev", "libtarnwell-client0")


def in_copy(scratch):
    """In the new root, which is not this machine's any more."""
    path = scratch / "tarnwell.deb"
    for name in run("dpkg-query", "-W", "-f=${Package}\n").split():
        if name in ("tarnwell", "libtarnwell-client0", "libtarnwell-client-dev"):
            run("dpkg", "--purge", "--force-depends", name)
    run("dpkg", "--install", path)
    for name in INSTALLED:
        if not pathlib.Path("/", name).is_file():
            sys.exit(f"/{name} is not there")
    home = pathlib.Path(tempfile.mkdtemp()) / "home"
    environment = device.make(home)
    version = run("/usr/bin/tarnwell", "--version", env=environment)
    if version.split() != ["tarnwell", run("dpkg-query", "-W", "-f=${Version}", "tarnwell")]:
        sys.exit(f"the version is {version}")
    listed = run("/usr/bin/tarnwell", "--storage", home / "Documents", "--json", "ls", env=environment)
    if '"plain.txt"' not in listed or device.LIBRARY not in listed:
        sys.exit(f"what is listed is not what is there: {listed}")
    # An icon is drawn by the program in libexec.
    run("/usr/bin/tarnwell", "thumbnail", device.LIBRARY, "-o", home / "icon.png", env=environment)
    if not (home / "icon.png").read_bytes().startswith(b"\x89PNG"):
        sys.exit("what was drawn is no picture")
    run("/usr/bin/tarnwell", "tag", home / "Documents/plain.txt", "urgent", env=environment)

    service = pathlib.Path("/usr/share/dbus-1/services/org.tarnwell.Host1.service").read_text(encoding="utf-8")
    for line in ("Name=org.tarnwell.Host1", "Exec=/usr/bin/tarnwell serve", "SystemdService=tarnwell.service"):
        if line not in service.splitlines():
            sys.exit(f"the activation file has no line {line}:\n{service}")
    if shutil.which("systemd-analyze"):
        said = subprocess.run(["systemd-analyze", "--user", "verify", "--man=no",
                               "/usr/lib/systemd/user/tarnwell.service"], capture_output=True, text=True, check=False,
                              env={**os.environ, "XDG_RUNTIME_DIR": str(home)})
        complaints = [line for line in (said.stdout + said.stderr).splitlines() if "tarnwell" in line]
        if said.returncode != 0 or complaints:
            sys.exit("systemd-analyze verify: " + "\n".join(complaints or [said.stderr]))

    check_library(scratch, environment)

    kept = state_of(home)
    run("dpkg", "--remove", "tarnwell")
    if (left := [name for name in INSTALLED if pathlib.Path("/", name).exists()]):
        sys.exit(f"left after removal: {left}")
    if state_of(home) != kept:
        sys.exit("removing the package changed something in the home")
    run("dpkg", "--install", path)
    run("dpkg", "--purge", "tarnwell")
    if state_of(home) != kept:
        sys.exit("purging the package changed something in the home")
    if pathlib.Path("/usr/libexec/tarnwell").exists() or "tarnwell" in run("dpkg-query", "-W", "-f=${Package}\n").split():
        sys.exit("something of the package is left")


def main():
    project, build, scratch = map(pathlib.Path, sys.argv[1:4])
    for tool in ("cpack", "dpkg", "dpkg-shlibdeps", "file", "unshare", "mount", "chroot"):
        if shutil.which(tool) is None:
            skip(f"{tool} is not installed")
    if os.environ.get("TARNWELL_PACKAGE_TEST") != "in-copy":
        if os.geteuid() != 0:
            skip("only root can mount and install")
        scratch.mkdir(parents=True, exist_ok=True)
        probe = subprocess.run(["unshare", "--mount", "--propagation=private", "sh", "-c",
                                'mount -t tmpfs none "$1" && mkdir "$1/upper" "$1/work" "$1/root" && mount -t overlay none '
                                '-o "lowerdir=/,upperdir=$1/upper,workdir=$1/work" "$1/root"', "sh", scratch],
                               capture_output=True, text=True, check=False)
        if probe.returncode != 0:
            skip(f"mounts are not allowed here: {probe.stderr.strip()}")
        found = pack(build, scratch)
        check_package(found["tarnwell"])
        script = """set -e
mkdir -p "$1/copy"
mount -t tmpfs none "$1/copy"
mkdir "$1/copy/upper" "$1/copy/work" "$1/copy/root"
mkdir "$1/copy/test"
cp -r "$2" "$1/copy/test/tests"
cp "$3" "$1/copy/test/tarnwell.deb"
cp "$4" "$1/copy/test/libtarnwell-client0.deb"
cp "$5" "$1/copy/test/libtarnwell-client-dev.deb"
mount -t overlay none -o "lowerdir=/,upperdir=$1/copy/upper,workdir=$1/copy/work" "$1/copy/root"
mount -t proc none "$1/copy/root/proc"
mount --rbind /dev "$1/copy/root/dev"
mount -t tmpfs none "$1/copy/root/tmp"
mount -t tmpfs none "$1/copy/root/run"
mv "$1/copy/test" "$1/copy/root/tmp/"
exec chroot "$1/copy/root" /usr/bin/env TARNWELL_PACKAGE_TEST=in-copy PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
    python3 -B /tmp/test/tests/package.py / / /tmp/test"""
        ran = subprocess.run(["unshare", "--mount", "--pid", "--fork", "--propagation=private", "sh", "-c", script, "sh",
                              scratch, project / "tests/packaging", found["tarnwell"], found["libtarnwell-client0"],
                              found["libtarnwell-client-dev"]], check=False, cwd="/")
        return ran.returncode
    in_copy(scratch)
    return 0


if __name__ == "__main__":
    sys.exit(main())
