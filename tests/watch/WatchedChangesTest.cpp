// Each kind of change, and what the next drain says of it.
#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <fcntl.h>
#include <unistd.h>

#include "tests/watch/WatchTesting.h"

namespace tarnwell::watch {
namespace {

using testing::makeDirectories;
using testing::writeFile;

/// Watched are A (1), B (2) and A/sub (3). Before the change A holds the files f and g, B the file t.
struct Change {
    const char* name;
    std::function<void(const std::string& root)> make;
    std::vector<std::string> told;          ///< as textsOf says it
    std::vector<std::string> perhaps = {};  ///< what some sources tell beside
};

void writeAt(const std::string& path, int flags, std::string_view text) {
    const Descriptor file(::open(path.c_str(), flags | O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(::write(file.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

void storeThroughMemory(const std::string& path) {
    Descriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    void* memory = ::mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    ASSERT_NE(memory, MAP_FAILED);
    *static_cast<char*>(memory) = 'm';
    MUST(::munmap(memory, 1));
}

const std::vector<Change> kChanges = {
    {"Create", [](const std::string& root) { makeNode(root + "/A/new"); }, {"1/new *"}},
    {"CreateWithContent", [](const std::string& root) { writeFile(root + "/A/new", "x"); }, {"1/new *"}},
    {"Write", [](const std::string& root) { writeAt(root + "/A/f", 0, "y"); }, {"1/f"}},
    {"Append", [](const std::string& root) { append(root + "/A/f", "more"); }, {"1/f"}},
    {"Truncate", [](const std::string& root) { MUST(::truncate((root + "/A/f").c_str(), 0)); }, {"1/f"}},
    {"StoreThroughMemory", [](const std::string& root) { storeThroughMemory(root + "/A/f"); }, {"1/f"}},
    {"RenameInside",
     [](const std::string& root) { MUST(::rename((root + "/A/f").c_str(), (root + "/A/h").c_str())); },
     {"1/f *", "1/h *"}},
    {"RenameAcross",
     [](const std::string& root) { MUST(::rename((root + "/A/f").c_str(), (root + "/B/f").c_str())); },
     {"1/f *", "2/f *"}},
    {"RenameOver",
     [](const std::string& root) { MUST(::rename((root + "/A/f").c_str(), (root + "/A/g").c_str())); },
     {"1/f *", "1/g *"}},
    {"Exchange",
     [](const std::string& root) {
         MUST(::renameat2(AT_FDCWD, (root + "/A/f").c_str(), AT_FDCWD, (root + "/B/t").c_str(), RENAME_EXCHANGE));
     },
     {"1/f *", "2/t *"}},
    {"MoveIn",
     [](const std::string& root) { MUST(::rename((root + "/outside").c_str(), (root + "/A/in").c_str())); },
     {"1/in *"}},
    {"MoveOut",
     [](const std::string& root) { MUST(::rename((root + "/A/f").c_str(), (root + "/out").c_str())); },
     {"1/f *"}},
    {"Unlink", [](const std::string& root) { MUST(::unlink((root + "/A/f").c_str())); }, {"1/f *"}},
    {"MakeDirectory", [](const std::string& root) { MUST(::mkdir((root + "/A/d").c_str(), 0755)); }, {"1/d *"}},
    {"RemoveDirectory", [](const std::string& root) { MUST(::rmdir((root + "/A/empty").c_str())); }, {"1/empty *"}},
    {"Link",
     [](const std::string& root) { MUST(::link((root + "/A/f").c_str(), (root + "/B/linked").c_str())); },
     {"2/linked *"},
     {"1/f"}},
    {"SymbolicLink", [](const std::string& root) { MUST(::symlink("nowhere", (root + "/A/l").c_str())); }, {"1/l *"}},
    {"ChangeMode", [](const std::string& root) { MUST(::chmod((root + "/A/f").c_str(), 0600)); }, {"1/f"}},
    {"ChangeOwner",
     [](const std::string& root) { MUST(::chown((root + "/A/f").c_str(), ::getuid(), ::getgid())); },
     {"1/f"}},
    {"ChangeTimes",
     [](const std::string& root) {
         const timespec times[2] = {{1, 0}, {2, 0}};
         MUST(::utimensat(AT_FDCWD, (root + "/A/f").c_str(), times, 0));
     },
     {"1/f"}},
    {"ChangeModeOfSubdirectory",
     [](const std::string& root) { MUST(::chmod((root + "/A/sub").c_str(), 0700)); },
     {"3/"},
     {"1/sub"}},
    {"ChangeInMovedDirectory",
     [](const std::string& root) {
         MUST(::rename((root + "/A").c_str(), (root + "/moved").c_str()));
         makeNode(root + "/moved/new");
     },
     {"1/new *"}},
    {"ChangeInSubdirectoryOfMovedDirectory",
     [](const std::string& root) {
         MUST(::rename((root + "/A").c_str(), (root + "/moved").c_str()));
         makeNode(root + "/moved/sub/new");
     },
     {"3/new *"}},
    {"NameOfBytes",
     [](const std::string& root) { makeNode(root + "/A/\xff\n" + std::string(200, 'n')); },
     {"1/\xff\n" + std::string(200, 'n') + " *"}},
    {"LongestName",
     [](const std::string& root) { makeNode(root + "/A/" + std::string(255, 'n')); },
     {"1/" + std::string(255, 'n') + " *"}},
    {"ManyOfOneName",
     [](const std::string& root) {
         for (int round = 0; round < 100; ++round) {
             append(root + "/A/f", "x");
             append(root + "/A/g", "x");
         }
     },
     {"1/f", "1/g"}},
    {"ContentThenName",
     [](const std::string& root) {
         append(root + "/A/f", "x");
         append(root + "/A/g", "x");
         MUST(::unlink((root + "/A/f").c_str()));
     },
     {"1/f *", "1/g"}},
    {"Elsewhere", [](const std::string& root) { append(root + "/outside", "x"); }, {}},
};

class WatchedChangesTest : public WatchTest {
protected:
    /// A fresh folder, watched and quiet.
    std::string prepare(const Change& change) {
        const std::string root = path(change.name);
        for (const char* folder : {"/A/sub", "/A/empty", "/B"}) makeDirectories(root + folder);
        for (const char* file : {"/A/f", "/A/g", "/B/t", "/outside"}) writeFile(root + file, "text");
        const std::string prefix = std::string(change.name) + "/";
        watch(prefix + "A", 1);
        watch(prefix + "B", 2);
        watch(prefix + "A/sub", 3);
        drain();
        return root;
    }
};

TEST_P(WatchedChangesTest, AreInTheVeryNextDrain) {
    for (const Change& change : kChanges) {
        SCOPED_TRACE(change.name);
        const std::string root = prepare(change);
        change.make(root);
        const Drained drained = drain();
        EXPECT_FALSE(drained.overflowed);
        std::vector<std::string> rest = textsOf(drained);
        for (const std::string& told : change.told) EXPECT_EQ(std::erase(rest, told), 1U) << "not told once: " << told;
        std::erase_if(rest, [&](const std::string& text) { return std::ranges::count(change.perhaps, text) > 0; });
        EXPECT_EQ(rest, std::vector<std::string>());
        EXPECT_EQ(drained.unwatched, std::vector<FileID>());
        EXPECT_EQ(drain().hints.size(), 0U) << "told again";
    }
}

TEST_P(WatchedChangesTest, AnExtendedAttributeIsTold) {
    const std::string root = prepare({"attribute", {}, {}});
    if (::setxattr((root + "/A/f").c_str(), "user.tag", "v", 1, 0) != 0)
        GTEST_SKIP() << "no extended attributes: " << std::strerror(errno);
    EXPECT_EQ(textsOf(drain()), std::vector<std::string>{"1/f"});
    MUST(::removexattr((root + "/A/f").c_str(), "user.tag"));
    EXPECT_EQ(textsOf(drain()), std::vector<std::string>{"1/f"});
}

TEST_P(WatchedChangesTest, AWriteIsToldBeforeTheFileIsClosed) {
    const std::string root = prepare({"open", {}, {}});
    const Descriptor file(::open((root + "/A/f").c_str(), O_WRONLY | O_CLOEXEC));
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(::write(file.get(), "w", 1), 1);
        EXPECT_EQ(textsOf(drain()), std::vector<std::string>{"1/f"});
    }
    // The name by which it was opened moves along.
    MUST(::rename((root + "/A/f").c_str(), (root + "/B/f").c_str()));
    drain();
    ASSERT_EQ(::write(file.get(), "w", 1), 1);
    EXPECT_EQ(textsOf(drain()), std::vector<std::string>{"2/f"});
}

// Such a file keeps the name that it never had: whoever looks for it finds nothing, and has to look at the directory.
TEST_P(WatchedChangesTest, AFileThatWasLinkedAfterItWasOpenedIsToldUnderSomeName) {
    const std::string root = prepare({"unnamed", {}, {}});
    const Descriptor file(::open((root + "/A").c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    if (!file.valid()) GTEST_SKIP() << "no files without a name: " << std::strerror(errno);
    MUST(::linkat(AT_FDCWD, ("/proc/self/fd/" + std::to_string(file.get())).c_str(), AT_FDCWD,
                  (root + "/A/linked").c_str(), AT_SYMLINK_FOLLOW));
    EXPECT_TRUE(tells(drain(), 1, "linked"));
    ASSERT_EQ(::write(file.get(), "w", 1), 1);
    const Drained drained = drain();
    ASSERT_EQ(drained.hints.size(), 1U);
    EXPECT_EQ(drained.hints[0].directory, FileID{1});
    EXPECT_FALSE(drained.hints[0].namesChanged);
    EXPECT_NE(::access((root + "/A/" + drained.hints[0].name).c_str(), F_OK), 0);
}

INSTANTIATE_TEST_SUITE_P(Sources, WatchedChangesTest, ::testing::ValuesIn(everySetting()), nameOfSetting);

}  // namespace
}  // namespace tarnwell::watch
