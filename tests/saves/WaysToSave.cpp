#include "tests/saves/WaysToSave.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "testing/TemporaryDirectory.h"
#include "tests/saves/ProgramRun.h"

namespace tarnwell::saves {

namespace {

std::string withoutLineEnd(const std::string& text) { return text.substr(0, text.find('\n')); }

/// vim without a terminal, which replaces the line and writes. Its settings are those for everywhere: in /tmp it makes
/// no backup, and so takes another way.
Way vim(const std::string& title, const std::string& settings) {
    return {title, {"vim"}, [settings](const Desk& desk, const std::string& text) {
                desk.run({"vim", "-e", "-s", "-n", "-u", "NONE", "-i", "NONE", "-c",
                          "set nocompatible backupskip=" + settings, "-c", "%s/.*/" + withoutLineEnd(text) + "/", "-c",
                          "wq", desk.name});
            }};
}

/// A program that writes the new text elsewhere first and then brings it over the document.
Way script(const std::string& title, std::vector<std::string> programs, const std::string& commands) {
    return {title, std::move(programs),
            [commands](const Desk& desk, const std::string& text) { desk.shell(commands, text); }};
}

/// Types into the real editor on a terminal of its own: cuts the line, types the new one, saves and leaves.
constexpr const char* kNanoAtATerminal = R"python(
import os, pty, select, sys, time
name, line = sys.argv[1:]
process, terminal = pty.fork()
if process == 0:
    os.environ['TERM'] = 'linux'
    os.execvp('nano', ['nano', '--ignorercfiles', name])
shown = b''
keys = [b'\x0b', line.encode() + b'\r\x7f', b'\x13', b'\x18']
deadline = time.monotonic() + 30
while time.monotonic() < deadline:
    if not select.select([terminal], [], [], 1)[0]:
        continue
    try:
        got = os.read(terminal, 65536)
    except OSError:
        got = b''
    if not got:
        sys.exit(os.waitstatus_to_exitcode(os.waitpid(process, 0)[1]))
    shown += got
    # What is typed before the editor shows the document may be thrown away.
    if keys and b'Exit' in shown:
        os.write(terminal, keys.pop(0))
os.kill(process, 9)
sys.exit('the editor did not end: %r' % shown)
)python";

constexpr const char* kWriteAndReplace = R"python(
import os, sys, tempfile
name, text = sys.argv[1:]
with tempfile.NamedTemporaryFile('w', dir=os.path.dirname(os.path.abspath(name)), delete=False) as new:
    new.write(text)
    new.flush()
    os.fsync(new.fileno())
os.replace(new.name, name)
)python";

/// What Qt's QSaveFile does: a temporary file beside the document, with its mode, synchronized and renamed over it.
void saveAsQtDoes(const Desk& desk, const std::string& text) {
    struct stat old{};
    ASSERT_EQ(::stat(desk.path().c_str(), &old), 0);
    std::string temporary = desk.path() + ".XXXXXX";
    const int file = ::mkostemp(temporary.data(), O_CLOEXEC);
    ASSERT_GE(file, 0);
    EXPECT_EQ(::fchmod(file, old.st_mode & 07777), 0);
    EXPECT_EQ(::write(file, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    EXPECT_EQ(::fsync(file), 0);
    EXPECT_EQ(::close(file), 0);
    ASSERT_EQ(::rename(temporary.c_str(), desk.path().c_str()), 0);
}

/// Another version becomes a commit without a touch of the document, and is checked out then.
constexpr const char* kCheckOut = R"shell(
export GIT_CONFIG_NOSYSTEM=1 GIT_AUTHOR_NAME=Ann GIT_AUTHOR_EMAIL=ann@example.org
export GIT_COMMITTER_NAME=Ann GIT_COMMITTER_EMAIL=ann@example.org
git init --quiet .
git add "$1"
git commit --quiet --allow-empty --message old
blob=$(printf %s "$2" | git hash-object -w --stdin)
tree=$(printf '100644 blob %s\t%s\n' "$blob" "$1" | git mktree)
git checkout --quiet --detach "$(git commit-tree -p HEAD -m new "$tree")"
)shell";

/// As everywhere but in /tmp, where emacs makes no backup.
constexpr const char* kEmacsSave = R"lisp(
(let ((line (pop command-line-args-left)) (make-backup-files (pop command-line-args-left)))
  (setq make-backup-files (equal make-backup-files "backup"))
  (setq backup-enable-predicate #'always)
  (find-file (pop command-line-args-left))
  (erase-buffer)
  (insert line "\n")
  (save-buffer))
)lisp";

Way emacs(const std::string& title, const std::string& backup) {
    return {title,
            {"emacs"},
            [backup](const Desk& desk, const std::string& text) {
                desk.run({"emacs", "--batch", "-Q", "--eval", kEmacsSave, withoutLineEnd(text), backup, desk.name});
            },
            true};
}

/// Opens the document in the office program, which has no window, and stores it again under its name. The program's own
/// folder is in the home, so that it is no other one that runs. The text is one byte a character: in another encoding
/// the program adds a mark of that.
constexpr const char* kOfficeSave = R"python(
import os, subprocess, sys, time
import uno
from com.sun.star.beans import PropertyValue
from com.sun.star.connection import NoConnectException
name, line = sys.argv[1:]
pipe = 'tarnwell%d' % os.getpid()
office = subprocess.Popen(['soffice', '--headless', '--norestore', '--nologo', '--nodefault',
                           '-env:UserInstallation=' + uno.systemPathToFileUrl(os.environ['HOME'] + '/office'),
                           '--accept=pipe,name=%s;urp;' % pipe])
local = uno.getComponentContext()
resolver = local.ServiceManager.createInstanceWithContext('com.sun.star.bridge.UnoUrlResolver', local)
deadline = time.monotonic() + 120
while True:
    try:
        context = resolver.resolve('uno:pipe,name=%s;urp;StarOffice.ComponentContext' % pipe)
        break
    except NoConnectException:
        if office.poll() is not None or time.monotonic() > deadline:
            office.kill()
            sys.exit('the office program does not answer')
        time.sleep(0.1)
desktop = context.ServiceManager.createInstanceWithContext('com.sun.star.frame.Desktop', context)
given = {'Hidden': True, 'FilterName': 'Text (encoded)', 'FilterOptions': 'ISO_8859_1,LF,,,'}
document = desktop.loadComponentFromURL(uno.systemPathToFileUrl(os.path.abspath(name)), '_blank', 0,
                                        tuple(PropertyValue(Name=key, Value=given[key]) for key in given))
document.Text.String = line
document.store()
document.close(True)
desktop.terminate()
sys.exit(office.wait())
)python";

std::vector<Way> makeWays() {
    const std::string write = "printf %s \"$2\" > \"$3/new\"\n";
    const std::string writeInFolder = "mkdir -p \"$3/tree\"\nprintf %s \"$2\" > \"$3/tree/$1\"\n";
    const std::string pack = writeInFolder + "tar -C \"$3/tree\" -cf \"$3/archive.tar\" \"$1\"\n";
    return {
        vim("vim", ""),
        vim("vim with backupcopy=auto", " backupcopy=auto"),
        vim("vim with backupcopy=yes", " backupcopy=yes"),
        vim("vim with backupcopy=no", " backupcopy=no"),
        vim("vim that keeps a renamed backup", " backup backupcopy=no"),
        vim("vim that keeps a copied backup", " backup backupcopy=yes"),
        {"nano",
         {"nano", "python3"},
         [](const Desk& desk, const std::string& text) {
             desk.run({"python3", "-c", kNanoAtATerminal, desk.name, withoutLineEnd(text)});
         }},
        emacs("emacs with its backup", "backup"),
        emacs("emacs without a backup", "none"),
        {"LibreOffice",
         {"soffice"},
         [](const Desk& desk, const std::string& text) {
             // The system's own Python has the module.
             desk.run({"/usr/bin/python3", "-c", kOfficeSave, desk.name, withoutLineEnd(text)});
         },
         true},
        script("the shell's redirection", {"sh"}, "printf %s \"$2\" > \"$1\""),
        {"sed in place",
         {"sed"},
         [](const Desk& desk, const std::string& text) {
             desk.run({"sed", "-i", "s/.*/" + withoutLineEnd(text) + "/", desk.name});
         }},
        {"sed in place with a backup",
         {"sed"},
         [](const Desk& desk, const std::string& text) {
             desk.run({"sed", "-i.bak", "s/.*/" + withoutLineEnd(text) + "/", desk.name});
         }},
        {"perl in place",
         {"perl"},
         [](const Desk& desk, const std::string& text) {
             desk.run({"perl", "-i", "-pe", "s/.+/" + withoutLineEnd(text) + "/", desk.name});
         }},
        {"perl in place with a backup",
         {"perl"},
         [](const Desk& desk, const std::string& text) {
             desk.run({"perl", "-i~", "-pe", "s/.+/" + withoutLineEnd(text) + "/", desk.name});
         }},
        {"Python's temporary file and replace",
         {"python3"},
         [](const Desk& desk, const std::string& text) {
             desk.run({"python3", "-c", kWriteAndReplace, desk.name, text});
         }},
        {"GLib's save",
         {"gio"},
         [](const Desk& desk, const std::string& text) {
             desk.run({"gio", "save", desk.name}, text, {{"GIO_USE_VFS", "local"}});
         }},
        {"GLib's save with a backup",
         {"gio"},
         [](const Desk& desk, const std::string& text) {
             desk.run({"gio", "save", "--backup", desk.name}, text, {{"GIO_USE_VFS", "local"}});
         }},
        script("GLib's copy over", {"gio"}, write + "GIO_USE_VFS=local gio copy \"$3/new\" \"$1\""),
        script("GLib's move over", {"gio"}, write + "GIO_USE_VFS=local gio move \"$3/new\" \"$1\""),
        {"Qt's save", {}, saveAsQtDoes},
        script("rsync", {"rsync"}, write + "rsync --ignore-times \"$3/new\" \"$1\""),
        script("rsync in place", {"rsync"}, write + "rsync --ignore-times --inplace \"$3/new\" \"$1\""),
        script("rsync with a backup", {"rsync"}, write + "rsync --ignore-times --backup \"$3/new\" \"$1\""),
        script("cp over", {"cp"}, write + "cp \"$3/new\" \"$1\""),
        script("cp that removes first", {"cp"}, write + "cp --remove-destination \"$3/new\" \"$1\""),
        script("cp with a backup", {"cp"}, write + "cp --backup=numbered \"$3/new\" \"$1\""),
        script("install", {"install"}, write + "install -m 644 \"$3/new\" \"$1\""),
        script("mv over", {"mv"}, write + "mv -f \"$3/new\" \"$1\""),
        script("mv aside, then a new file", {"mv"}, "mv -f \"$1\" \"$1.bak\"\nprintf %s \"$2\" > \"$1\""),
        script("removed, then a new file", {"rm"}, "rm \"$1\"\nprintf %s \"$2\" > \"$1\""),
        {"git checkout of another version",
         {"git"},
         [](const Desk& desk, const std::string& text) { desk.shell(kCheckOut, text); }},
        script("tar over", {"tar"}, pack + "tar -xf \"$3/archive.tar\""),
        script("tar that unlinks first", {"tar"}, pack + "tar --unlink-first -xf \"$3/archive.tar\""),
        script("tar that overwrites", {"tar"}, pack + "tar --overwrite -xf \"$3/archive.tar\""),
    };
}

}  // namespace

void Desk::run(const std::vector<std::string>& arguments, const std::string& input,
               const std::map<std::string, std::string>& variables) const {
    const ProgramEnd end = runProgram(arguments, folder, elsewhere, input, variables);
    EXPECT_EQ(end.status, 0) << arguments.front() << " said: " << end.output;
}

void Desk::shell(const std::string& script, const std::string& text) const {
    run({"sh", "-e", "-c", script, "sh", name, text, elsewhere});
}

const std::vector<Way>& waysToSave() {
    static const std::vector<Way> kWays = makeWays();
    return kWays;
}

}  // namespace tarnwell::saves
