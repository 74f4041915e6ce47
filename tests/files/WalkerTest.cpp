#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "testing/TestDevice.h"

namespace tarnwell::files {
namespace {

using testing::TestDevice;
using testing::writeFile;

std::vector<std::string> names(TestDevice& device, const std::string& folder, unsigned options,
                               std::uint64_t skip = 0) {
    auto walker = device.files().walk(device.url(folder), options, {});
    if (!walker) return {"error " + describe(walker.error())};
    std::vector<std::string> found;
    if (skip > 0) found.push_back("skipped " + std::to_string((*walker)->skip(skip)));
    std::string prefix = device.url(folder).path() + "/";
    while (auto url = (*walker)->next()) found.push_back(url->path().substr(prefix.size()));
    return found;
}

constexpr unsigned kFlat = kSkipHiddenFiles | kSkipPackageDescendants | kSkipSubdirectoryDescendants;

TEST(Walker, KeepsTheOrderInWhichEntriesCame) {
    TestDevice device;
    std::vector<std::string> expected;
    for (const char* name : {"zebra", "apple", "mango", "banana"}) {
        writeFile(device.path(name), name);
        device.settle();
        expected.push_back(name);
    }
    EXPECT_EQ(expected, names(device, "", kFlat));
    device.restart();
    EXPECT_EQ(expected, names(device, "", kFlat));
}

TEST(Walker, ARenamedEntryKeepsItsPlaceAndAMovedOneGoesLast) {
    TestDevice device;
    testing::makeDirectories(device.path("sub"));
    writeFile(device.path("sub/moved"), "");
    device.settle();
    for (const char* name : {"one", "two"}) {
        writeFile(device.path(name), name);
        device.settle();
    }
    ASSERT_EQ(0, rename(device.path("one").c_str(), device.path("zzz").c_str()));
    ASSERT_EQ(0, rename(device.path("sub/moved").c_str(), device.path("aaa").c_str()));
    EXPECT_EQ((std::vector<std::string>{"sub", "zzz", "two", "aaa"}), names(device, "", kFlat));
}

TEST(Walker, AnEntryThatBecomesVisibleGoesLast) {
    TestDevice device;
    for (const char* name : {".later", "one", "two"}) {
        writeFile(device.path(name), name);
        device.settle();
    }
    ASSERT_EQ(0, rename(device.path(".later").c_str(), device.path("later").c_str()));
    EXPECT_EQ((std::vector<std::string>{"one", "two", "later"}), names(device, "", kFlat));
}

TEST(Walker, ShowsAFileUnderANameThatIsSeen) {
    TestDevice device;
    testing::makeDirectories(device.path("folder"));
    writeFile(device.path(".hidden"), "");
    device.settle();
    EXPECT_EQ((std::vector<std::string>{"folder"}), names(device, "", kSkipHiddenFiles));
    ASSERT_EQ(0, link(device.path(".hidden").c_str(), device.path("folder/seen").c_str()));
    EXPECT_EQ((std::vector<std::string>{"folder", "folder/seen"}), names(device, "", kSkipHiddenFiles));
    ASSERT_EQ(0, unlink(device.path("folder/seen").c_str()));
    EXPECT_EQ((std::vector<std::string>{"folder"}), names(device, "", kSkipHiddenFiles));
}

TEST(Walker, ShowsAFileUnderANameThatComesToBeSeen) {
    TestDevice device;
    testing::makeDirectories(device.path(".hidden"));
    writeFile(device.path(".first"), "");
    ASSERT_EQ(0, link(device.path(".first").c_str(), device.path(".hidden/second").c_str()));
    device.settle();
    EXPECT_EQ((std::vector<std::string>{}), names(device, "", kSkipHiddenFiles));
    ASSERT_EQ(0, rename(device.path(".hidden").c_str(), device.path("seen").c_str()));
    EXPECT_EQ((std::vector<std::string>{"seen", "seen/second"}), names(device, "", kSkipHiddenFiles));
}

TEST(Walker, ShowsAFileUnderItsOtherNameOnceTheOneItHadIsGone) {
    TestDevice device;
    testing::makeDirectories(device.path(".hidden"));
    testing::makeDirectories(device.path("folder/sub"));
    writeFile(device.path(".hidden/first"), "");
    device.settle();
    for (const char* name : {"folder/second", "folder/sub/third"}) {
        ASSERT_EQ(0, link(device.path(".hidden/first").c_str(), device.path(name).c_str()));
        device.settle();
    }
    // The folder itself stays as it is, so that only the look at the other name tells.
    const unsigned below = kSkipHiddenFiles | kSkipPackageDescendants;
    EXPECT_EQ((std::vector<std::string>{"sub", "second"}), names(device, "folder", below));
    ASSERT_EQ(0, unlink(device.path(".hidden/first").c_str()));
    EXPECT_EQ((std::vector<std::string>{"sub", "second"}), names(device, "folder", below));
    ASSERT_EQ(0, unlink(device.path("folder/second").c_str()));
    EXPECT_EQ((std::vector<std::string>{"sub", "sub/third"}), names(device, "folder", below));
}

TEST(Walker, PassesOverWhatLiesInAnInbox) {
    TestDevice device;
    testing::makeDirectories(device.path("Inbox/unseen"));
    testing::makeDirectories(device.path("folder/Inbox/seen"));
    auto found = names(device, "", kSkipHiddenFiles | kSkipPackageDescendants);
    std::sort(found.begin(), found.end());
    EXPECT_EQ((std::vector<std::string>{"Inbox", "folder", "folder/Inbox", "folder/Inbox/seen"}), found);
}

TEST(Walker, ASafeSavedDocumentKeepsItsPlace) {
    TestDevice device;
    for (const char* name : {"one", "two", "three"}) {
        writeFile(device.path(name), name);
        device.settle();
    }
    writeFile(device.path(".one.tmp"), "new");
    ASSERT_EQ(0, rename(device.path(".one.tmp").c_str(), device.path("one").c_str()));
    EXPECT_EQ((std::vector<std::string>{"one", "two", "three"}), names(device, "", kFlat));
}

TEST(Walker, LeavesOutWhatTheOptionsSay) {
    TestDevice device;
    for (const char* folder : {"sub/deep", ".hidden"}) testing::makeDirectories(device.path(folder));
    for (const char* file : {"sub/deep/file", ".hidden/file", ".dot"}) writeFile(device.path(file), "");
    EXPECT_EQ((std::vector<std::string>{"sub"}), names(device, "", kFlat));
    EXPECT_EQ((std::vector<std::string>{"sub", "sub/deep", "sub/deep/file"}),
              names(device, "", kSkipHiddenFiles | kSkipPackageDescendants));
    auto all = names(device, "", kWalkDefault);
    std::sort(all.begin(), all.end());
    EXPECT_EQ((std::vector<std::string>{".dot", ".hidden", ".hidden/file", "sub", "sub/deep", "sub/deep/file"}), all);
}

TEST(Walker, SkippingCountsWhatItPasses) {
    TestDevice device;
    for (int i = 0; i < 10; ++i) writeFile(device.path("f" + std::to_string(i)), "");
    auto everything = names(device, "", kFlat);
    ASSERT_EQ(10u, everything.size());
    auto rest = names(device, "", kFlat, 7);
    EXPECT_EQ((std::vector<std::string>{"skipped 7", everything[7], everything[8], everything[9]}), rest);
    EXPECT_EQ((std::vector<std::string>{"skipped 10"}), names(device, "", kFlat, 25));
    auto deep = names(device, "", kSkipHiddenFiles, 9);
    EXPECT_EQ((std::vector<std::string>{"skipped 9", everything[9]}), deep);
}

TEST(Walker, AWalkThatGoesOnSeesEachEntryOnceWhileOthersCome) {
    TestDevice device;
    for (int i = 0; i < 25; ++i) writeFile(device.path("f" + std::to_string(i)), "");
    std::set<std::string> seen;
    std::uint64_t offset = 0;
    for (int page = 0; page < 6; ++page) {
        auto walker = device.files().walk(device.url(), kFlat, {});
        ASSERT_TRUE(walker.has_value());
        ASSERT_EQ(offset, (*walker)->skip(offset));
        for (int i = 0; i < 10; ++i) {
            auto url = (*walker)->next();
            if (!url) break;
            ++offset;
            EXPECT_TRUE(seen.insert(std::string(url->lastPathComponent())).second) << url->path();
        }
        (*walker)->next();
        writeFile(device.path("late" + std::to_string(page)), "");
    }
    for (int i = 0; i < 25; ++i) EXPECT_TRUE(seen.contains("f" + std::to_string(i)));
}

TEST(Walker, PrefetchesTheValuesOfEachEntry) {
    TestDevice device;
    writeFile(device.path("note.txt"), "four");
    testing::setUserAttribute(device.path("note.txt"), "com.vellum.test", "value");
    auto walker = device.files().walk(device.url(), kFlat, {});
    ASSERT_TRUE(walker.has_value());
    auto url = (*walker)->next();
    ASSERT_TRUE(url.has_value());
    // Gone from the disk, so every answer comes from what the walk looked at.
    ASSERT_EQ(0, unlink(device.path("note.txt").c_str()));
    auto& files = device.files();
    EXPECT_EQ(ResourceValue(std::string("note.txt")), files.resourceValue(*url, ResourceKey::name).value());
    EXPECT_EQ(ResourceValue(std::string("text/plain")), files.resourceValue(*url, ResourceKey::typeIdentifier).value());
    EXPECT_EQ(ResourceValue(std::uint64_t{4}), files.resourceValue(*url, ResourceKey::fileSize).value());
    EXPECT_EQ(ResourceValue(true), files.resourceValue(*url, ResourceKey::isReadable).value());
    EXPECT_EQ(ResourceValue(true), files.resourceValue(*url, ResourceKey::isWritable).value());
    Bytes buffer(5);
    EXPECT_EQ(5u, files.getAttribute(*url, "com.vellum.test", buffer).value());
    EXPECT_EQ("value", textOf(buffer));
    EXPECT_TRUE(files.getAttribute(*url, "com.vellum.none", {}).error().is(ErrorDomain::posix, ENODATA));
}

TEST(Walker, AnEntrysURLKnowsTheFolderThatItLiesIn) {
    TestDevice device;
    testing::makeDirectories(device.path("sub/deep"));
    writeFile(device.path("sub/deep/file"), "");
    auto walker = device.files().walk(device.url(), kSkipHiddenFiles | kSkipPackageDescendants, {});
    ASSERT_TRUE(walker.has_value());
    std::size_t seen = 0;
    while (auto url = (*walker)->next()) {
        const URL folder = url->deletingLastPathComponent();
        const auto looked = device.files().resourceValue(URL::file(folder.path()), ResourceKey::fileID);
        ASSERT_TRUE(looked.has_value());
        ASSERT_TRUE(folder.cache().fileID().has_value());
        EXPECT_EQ(ResourceValue(raw(*folder.cache().fileID())), *looked) << folder.path();
        EXPECT_EQ(folder.cache().isFolder(), true);
        ++seen;
    }
    EXPECT_EQ(seen, 3u);
}

/// A folder that is a read-only mount of itself as long as this lives.
class ReadOnlyMount {
public:
    explicit ReadOnlyMount(std::string folder) : folder_(std::move(folder)) {
        const char* path = folder_.c_str();
        mounted_ = mount(path, path, nullptr, MS_BIND, nullptr) == 0 &&
                   mount(nullptr, path, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) == 0;
    }
    ~ReadOnlyMount() { umount2(folder_.c_str(), MNT_DETACH); }
    bool mounted() const { return mounted_; }

private:
    const std::string folder_;
    bool mounted_ = false;
};

TEST(Walker, KnowsAReadOnlyMountAtEveryDepth) {
    if (geteuid() != 0) GTEST_SKIP() << "mounting needs root";
    TestDevice device;
    std::string folder = "mounted";
    for (int depth = 0; depth < 40; ++depth) {
        testing::makeDirectories(device.path(folder));
        writeFile(device.path(folder + "/file"), "");
        folder += "/" + std::string(30, 'd');
    }
    writeFile(device.path("outside"), "");
    device.settle();
    const ReadOnlyMount mount(device.path("mounted"));
    if (!mount.mounted()) GTEST_SKIP() << "no bind mounts here";
    auto walker = device.files().walk(device.url(), kSkipHiddenFiles | kSkipPackageDescendants, {});
    ASSERT_TRUE(walker.has_value());
    std::size_t seen = 0;
    while (auto url = (*walker)->next()) {
        if (url->lastPathComponent() == "mounted") continue;
        const bool isOutside = url->lastPathComponent() == "outside";
        EXPECT_EQ(device.files().resourceValue(*url, ResourceKey::isWritable), ResourceValue(isOutside)) << url->path();
        ++seen;
    }
    EXPECT_EQ(seen, 40u + 39u + 1u);
}

TEST(Walker, AFolderThatIsNoneCannotBeWalked) {
    TestDevice device;
    writeFile(device.path("file"), "");
    EXPECT_TRUE(device.files().walk(device.url("none"), kFlat, {}).error().is(ErrorDomain::posix, ENOENT));
    EXPECT_TRUE(device.files().walk(device.url("file"), kFlat, {}).error().is(ErrorDomain::posix, ENOTDIR));
}

TEST(Walker, ReachesTheBottomOfATreeFiveThousandDeep) {
    TestDevice device;
    constexpr int kDepth = 5000;
    // Made relative to the folder before, since the whole path is longer than a system call takes.
    int folder = open(device.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(folder, 0);
    for (int i = 0; i < kDepth; ++i) {
        ASSERT_EQ(0, mkdirat(folder, "d", 0755));
        int next = openat(folder, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        close(folder);
        ASSERT_GE(next, 0);
        folder = next;
    }
    close(folder);
    auto walker = device.files().walk(device.url(), kSkipHiddenFiles | kSkipPackageDescendants, {});
    ASSERT_TRUE(walker.has_value());
    int found = 0;
    std::optional<URL> last;
    while (auto url = (*walker)->next()) {
        ++found;
        last = url;
    }
    EXPECT_EQ(kDepth, found);
    auto row = device.files().resourceValue(*last, ResourceKey::fileID);
    ASSERT_TRUE(row.has_value());
    auto url = device.files().pathOfFileID(FileID{std::get<std::uint64_t>(*row)}, device.device());
    ASSERT_TRUE(url.has_value());
    EXPECT_EQ(last->path(), url->path());
}

TEST(Walker, NamesOfEveryKindArePassedOnAsTheyAre) {
    TestDevice device;
    std::vector<std::string> odd = {
        std::string(255, 'n'), "line\nbreak", "not-\xff\xfe-utf8", " ", "-rf", "\x01", "a=b"};
    for (const std::string& name : odd) writeFile(device.path(name), "");
    auto found = names(device, "", kFlat);
    std::sort(found.begin(), found.end());
    std::sort(odd.begin(), odd.end());
    EXPECT_EQ(odd, found);
}

}  // namespace
}  // namespace tarnwell::files
