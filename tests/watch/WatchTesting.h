#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "platform/base/Descriptor.h"
#include "platform/watch/KernelWatcher.h"
#include "testing/TemporaryDirectory.h"

namespace tarnwell::watch {

/// A source, and the folder below which a test tries it ("" for the usual one of tests).
struct Setting {
    SourceChoice source;
    const char* place;
    const char* name;
};

/// Every source on the file system of the tests and on tmpfs.
std::vector<Setting> everySetting();
std::string nameOfSetting(const ::testing::TestParamInfo<Setting>& setting);

/// A private folder with a watcher of one source. Skips, with the reason, where this machine refuses the source.
class WatchTest : public ::testing::TestWithParam<Setting> {
protected:
    void SetUp() override;
    std::string path(const std::string& relative) const { return directory_->path(relative); }
    void watch(const std::string& relative, std::uint64_t number);
    Drained drain();

    std::unique_ptr<testing::TemporaryDirectory> directory_;
    std::unique_ptr<Watcher> watcher_;
};

/// A temporary folder below `place`, or the usual one.
std::unique_ptr<testing::TemporaryDirectory> temporaryDirectoryIn(const std::string& place);
Descriptor openDirectory(const std::string& path);
Result<void> watchPath(Watcher& watcher, const std::string& path, std::uint64_t number);
std::unique_ptr<Watcher> watcherWith(SourceChoice source);

/// "3/name", with " *" where names changed; sorted.
std::vector<std::string> textsOf(const Drained& drained);
bool tells(const Drained& drained, std::uint64_t number, std::string_view name);
bool isReadable(const Watcher& watcher);

/// Fails the test when a system call says -1.
#define MUST(call) ASSERT_NE((call), -1) << std::strerror(errno)

/// Makes an empty file; one event.
void makeNode(const std::string& path);
void append(const std::string& path, std::string_view text);

/// Runs `body` in a child process, which may change its identity, its limits and its mounts. What `body` returns is a
/// failure, or with "skip: " before it a reason to skip.
std::string checkedInChild(const std::function<std::string()>& body);
#define EXPECT_IN_CHILD(body)                                                     \
    do {                                                                          \
        const std::string childSaid = checkedInChild(body);                       \
        if (childSaid.starts_with("skip: ")) GTEST_SKIP() << childSaid.substr(6); \
        EXPECT_EQ(childSaid, "");                                                 \
    } while (false)

}  // namespace tarnwell::watch
