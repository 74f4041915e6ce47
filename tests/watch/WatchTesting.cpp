#include "tests/watch/WatchTesting.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>

#include <sys/stat.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "testing/InChild.h"

namespace tarnwell::watch {

std::vector<Setting> everySetting() {
    return {{SourceChoice::automatic, "", "AutomaticOnDisk"},
            {SourceChoice::directoryMarks, "", "DirectoryMarksOnDisk"},
            {SourceChoice::fileSystemMarks, "", "FileSystemMarksOnDisk"},
            {SourceChoice::inotify, "", "InotifyOnDisk"},
            {SourceChoice::directoryMarks, "/dev/shm", "DirectoryMarksInMemory"},
            {SourceChoice::fileSystemMarks, "/dev/shm", "FileSystemMarksInMemory"},
            {SourceChoice::inotify, "/dev/shm", "InotifyInMemory"}};
}

std::string nameOfSetting(const ::testing::TestParamInfo<Setting>& setting) { return setting.param.name; }

std::unique_ptr<testing::TemporaryDirectory> temporaryDirectoryIn(const std::string& place) {
    if (place.empty()) return std::make_unique<testing::TemporaryDirectory>();
    const char* before = std::getenv("TARNWELL_TEST_DIR");
    const std::optional<std::string> kept = before ? std::optional<std::string>(before) : std::nullopt;
    ::setenv("TARNWELL_TEST_DIR", place.c_str(), 1);
    auto directory = std::make_unique<testing::TemporaryDirectory>();
    if (kept)
        ::setenv("TARNWELL_TEST_DIR", kept->c_str(), 1);
    else
        ::unsetenv("TARNWELL_TEST_DIR");
    return directory;
}

Descriptor openDirectory(const std::string& path) {
    return Descriptor(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

Result<void> watchPath(Watcher& watcher, const std::string& path, std::uint64_t number) {
    const Descriptor directory = openDirectory(path);
    return watcher.watch(directory.get(), FileID{number});
}

std::unique_ptr<Watcher> watcherWith(SourceChoice source) {
    auto made = makeWatcher({.source = source});
    return made ? std::move(*made) : nullptr;
}

void WatchTest::SetUp() {
    const std::string place = GetParam().place;
    if (!place.empty() && ::access(place.c_str(), W_OK) != 0) GTEST_SKIP() << place << " cannot be written to";
    directory_ = temporaryDirectoryIn(place);
    watcher_ = watcherWith(GetParam().source);
    ASSERT_TRUE(watcher_);
    auto probed = watchPath(*watcherWith(GetParam().source), directory_->path(), 1);
    if (!probed) GTEST_SKIP() << "refused here: " << describe(probed.error());
}

void WatchTest::watch(const std::string& relative, std::uint64_t number) {
    auto watched = watchPath(*watcher_, path(relative), number);
    ASSERT_TRUE(watched) << describe(watched.error());
    EXPECT_TRUE(watcher_->isWatched(FileID{number}));
}

Drained WatchTest::drain() {
    auto drained = watcher_->drain();
    if (!drained) {
        ADD_FAILURE() << describe(drained.error());
        return {};
    }
    return std::move(*drained);
}

std::vector<std::string> textsOf(const Drained& drained) {
    std::vector<std::string> texts;
    for (const Hint& hint : drained.hints)
        texts.push_back(std::to_string(raw(hint.directory)) + "/" + hint.name + (hint.namesChanged ? " *" : ""));
    std::ranges::sort(texts);
    return texts;
}

bool tells(const Drained& drained, std::uint64_t number, std::string_view name) {
    return std::ranges::any_of(drained.hints,
                               [&](const Hint& hint) { return hint.directory == FileID{number} && hint.name == name; });
}

bool isReadable(const Watcher& watcher) {
    pollfd entry{watcher.descriptor(), POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1;
}

void makeNode(const std::string& path) { MUST(::mknod(path.c_str(), S_IFREG | 0644, 0)) << path; }

void append(const std::string& path, std::string_view text) {
    const Descriptor file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
    ASSERT_EQ(::write(file.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

std::string checkedInChild(const std::function<std::string()>& body) {
    return testing::inChild([&] {
        std::string answer = body();
        return ::testing::Test::HasFailure() ? "failures above" : answer;
    });
}

}  // namespace tarnwell::watch
