#include "platform/filesystem/PlainFile.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <set>
#include <thread>

#include "tests/filesystem/Sandbox.h"

namespace tarnwell::filesystem {
namespace {

std::string textOfFile(const std::string& path) {
    const auto bytes = readFile(path, 1 << 20);
    return bytes ? std::string(textOf(*bytes)) : errnoName(static_cast<int>(bytes.error().code));
}

std::set<std::string> namesIn(const std::string& folder) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) names.insert(entry.path().filename());
    return names;
}

TEST(ReadFile, GivesTheWholeContentUpToTheLimit) {
    const Sandbox sandbox;
    const std::string path = sandbox.file("file", std::string("a\0b", 3));
    EXPECT_EQ(textOf(*readFile(path, 3)), std::string_view("a\0b", 3));
    EXPECT_EQ(readFile(path, 2).error(), posixError(EFBIG));
    EXPECT_EQ(textOfFile(sandbox.file("empty")), "");
    EXPECT_TRUE(readFile(sandbox.path("empty"), 0));
    const std::string big(300'000, 'x');
    EXPECT_EQ(textOfFile(sandbox.file("big", big)), big);
    // Files of the kernel do not tell their size before.
    EXPECT_NE(textOfFile("/proc/self/status").find("Name:"), std::string::npos);
    EXPECT_EQ(readFile("/proc/self/status", 10).error(), posixError(EFBIG));
}

TEST(ReadFile, ReadsRegularFilesOnlyAndNeverBlocks) {
    const Sandbox sandbox;
    EXPECT_EQ(textOfFile(sandbox.path("missing")), "ENOENT");
    EXPECT_EQ(textOfFile(sandbox.path()), "EINVAL");
    EXPECT_EQ(textOfFile(sandbox.fifo("fifo")), "EINVAL");
    EXPECT_EQ(textOfFile("/dev/null"), "EINVAL");
    sandbox.file("file", "content");
    EXPECT_EQ(textOfFile(sandbox.link("link", "file")), "content");
}

TEST(WriteFileAtomically, CreatesAndReplaces) {
    const Sandbox sandbox;
    const std::string path = sandbox.path("file");
    ASSERT_TRUE(writeFileAtomically(path, bytesOf("one")));
    EXPECT_EQ(textOfFile(path), "one");
    struct stat status{};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFREG | 0600U);
    ASSERT_TRUE(writeFileAtomically(path, bytesOf("")));
    EXPECT_EQ(textOfFile(path), "");
    const std::string big(300'000, 'x');
    ASSERT_TRUE(writeFileAtomically(path, bytesOf(big)));
    EXPECT_EQ(textOfFile(path), big);
    EXPECT_EQ(namesIn(sandbox.path()), (std::set<std::string>{"file"}));
}

TEST(WriteFileAtomically, IsAsWholeWithoutDurability) {
    const Sandbox sandbox;
    const std::string path = sandbox.path("file");
    for (const std::string& content : {std::string("one"), std::string(300'000, 'x'), std::string()}) {
        ASSERT_TRUE(writeFileAtomically(path, bytesOf(content), Durability::none));
        EXPECT_EQ(textOfFile(path), content);
        EXPECT_EQ(namesIn(sandbox.path("")), std::set<std::string>{"file"});
    }
    EXPECT_EQ(writeFileAtomically(sandbox.path("missing/file"), bytesOf("x"), Durability::none).error(),
              posixError(ENOENT));
}

TEST(WriteFileAtomically, ReplacesALinkInsteadOfItsTarget) {
    const Sandbox sandbox;
    sandbox.file("target", "old");
    ASSERT_TRUE(writeFileAtomically(sandbox.link("link", "target"), bytesOf("new")));
    EXPECT_EQ(textOfFile(sandbox.path("target")), "old");
    EXPECT_EQ(textOfFile(sandbox.path("link")), "new");
}

TEST(WriteFileAtomically, TakesNamesOf255Bytes) {
    const Sandbox sandbox;
    const std::string longest(255, 'n');
    ASSERT_TRUE(writeFileAtomically(sandbox.path(longest), bytesOf("x")));
    EXPECT_EQ(namesIn(sandbox.path()), (std::set<std::string>{longest}));
    EXPECT_EQ(writeFileAtomically(sandbox.path(longest + "n"), bytesOf("x")).error(), posixError(ENAMETOOLONG));
    EXPECT_EQ(namesIn(sandbox.path()), (std::set<std::string>{longest}));
}

TEST(WriteFileAtomically, LeavesThingsAsTheyWereWhenItFails) {
    const Sandbox sandbox;
    sandbox.file("folder/inside", "inside");
    EXPECT_EQ(writeFileAtomically(sandbox.path("missing/file"), bytesOf("x")).error(), posixError(ENOENT));
    EXPECT_EQ(writeFileAtomically(sandbox.path("folder"), bytesOf("x")).error(), posixError(EISDIR));
    EXPECT_EQ(writeFileAtomically(sandbox.path("folder/inside/x"), bytesOf("x")).error(), posixError(ENOTDIR));
    EXPECT_EQ(namesIn(sandbox.path()), (std::set<std::string>{"folder"}));
    EXPECT_EQ(textOfFile(sandbox.path("folder/inside")), "inside");
}

TEST(WriteFileAtomically, LeavesNoTemporaryBehindWhenTheDiskIsFull) {
    const Sandbox sandbox;
    const std::string path = sandbox.file("file", "old");
    EXPECT_EQ(inChild([&]() -> std::string {
                  // A limit on the size of files fails a write half-way, as a full disk does.
                  std::signal(SIGXFSZ, SIG_IGN);
                  const rlimit limit{1000, 1000};
                  if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) return "no limit can be set";
                  const auto written = writeFileAtomically(path, bytesOf(std::string(5000, 'x')));
                  return written ? "written" : errnoName(static_cast<int>(written.error().code));
              }),
              "EFBIG");
    EXPECT_EQ(textOfFile(path), "old");
    EXPECT_EQ(namesIn(sandbox.path()), (std::set<std::string>{"file"}));
}

TEST(WriteFileAtomically, ShowsReadersTheOldBytesOrTheNew) {
    const Sandbox sandbox;
    const std::string path = sandbox.file("file", std::string(5000, 'a'));
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop) {
            const std::string text = textOfFile(path);
            EXPECT_TRUE(text == std::string(5000, 'a') || text == std::string(9000, 'b')) << text.size();
        }
    });
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(writeFileAtomically(path, bytesOf(i % 2 == 0 ? std::string(9000, 'b') : std::string(5000, 'a'))));
    }
    stop = true;
    reader.join();
}

TEST(CreateDirectories, CreatesWhatIsMissing) {
    const Sandbox sandbox;
    ASSERT_TRUE(createDirectories(sandbox.path("a/b//c/")));
    struct stat status{};
    for (const char* name : {"a", "a/b", "a/b/c"}) {
        ASSERT_EQ(::stat(sandbox.path(name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, S_IFDIR | 0700U);
    }
    EXPECT_TRUE(createDirectories(sandbox.path("a/b/c")));
    sandbox.link("link", "a");
    EXPECT_TRUE(createDirectories(sandbox.path("link/d")));
    EXPECT_TRUE(std::filesystem::is_directory(sandbox.path("a/d")));
    EXPECT_TRUE(createDirectories("/"));
    EXPECT_TRUE(createDirectories("/proc/self"));
}

TEST(CreateDirectories, ReportsWhatStandsInTheWay) {
    const Sandbox sandbox;
    sandbox.file("file");
    sandbox.link("dangling", "nowhere");
    EXPECT_EQ(createDirectories(sandbox.path("file")).error(), posixError(ENOTDIR));
    EXPECT_EQ(createDirectories(sandbox.path("file/x")).error(), posixError(ENOTDIR));
    EXPECT_EQ(createDirectories(sandbox.path("dangling")).error(), posixError(EEXIST));
    EXPECT_EQ(createDirectories("").error(), posixError(ENOENT));
}

}  // namespace
}  // namespace tarnwell::filesystem
