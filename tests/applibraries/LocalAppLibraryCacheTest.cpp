#include "applibraries/LocalAppLibraryCache.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <limits>

#include "applibraries/AppLibraryCacheFile.h"
#include "platform/archive/KeyedArchive.h"
#include "tests/applibraries/AppLibraryFixture.h"

namespace tarnwell::applibraries {
namespace {

using Lines = std::vector<std::string>;

class LocalAppLibraryCacheTest : public CacheTest {
protected:
    void writeCacheFile(ByteView bytes) {
        testing::makeDirectories(directory_.path("data/Tarnwell Storage"));
        testing::writeFile(cachePath(), textOf(bytes));
    }
    std::string sizeOfFile() const { return std::to_string(testing::readFile(cachePath()).size()); }
    AppLibraryList fileContent() const {
        std::string content = testing::readFile(cachePath());
        auto list = decodeAppLibraryList(bytesOf(content));
        EXPECT_TRUE(list.has_value());
        return list.value_or(AppLibraryList{});
    }
    Lines filesInFolder() const {
        Lines names;
        for (const auto& entry : std::filesystem::directory_iterator(directory_.path("data/Tarnwell Storage"))) {
            names.push_back(entry.path().filename());
        }
        return names;
    }
};
using LocalAppLibraryCacheDeathTest = LocalAppLibraryCacheTest;

TEST_F(LocalAppLibraryCacheTest, NamesItsQueueAfterItself) {
    EXPECT_EQ(makeCache()->queue().label(), "tarnwell.app-library-cache.main");
    LocalAppLibraryCache other(log_, registry_, pool_, "working-set", URL::file("/nowhere"));
    EXPECT_EQ(other.queue().label(), "tarnwell.app-library-cache.working-set");
}

TEST_F(LocalAppLibraryCacheTest, ReadsAMissingFileAsNothingAndCreatesNothing) {
    auto cache = makeCache();
    auto loaded = load(*cache);
    EXPECT_EQ(loaded.versionToken, 0u);
    EXPECT_TRUE(loaded.records.empty());
    EXPECT_EQ(newLines(), Lines{"[DEBUG] nothing cached on disk"});
    EXPECT_FALSE(std::filesystem::exists(directory_.path("data")));
}

TEST_F(LocalAppLibraryCacheTest, WritesTokenOneFirst) {
    auto cache = makeCache();
    load(*cache);
    newLines();
    auto token = save(*cache, {record("Notes")}, 99, TokenIncrement::yes);
    ASSERT_TRUE(token);
    EXPECT_EQ(*token, 1u);
    EXPECT_EQ(tokenOf(*cache), 1u);
    EXPECT_EQ(newLines(), Lines{"[DEBUG] wrote on disk " + sizeOfFile() + " bytes at " + cacheText()});
    const AppLibraryList content = fileContent();
    EXPECT_EQ(content.versionToken, 1u);
    ASSERT_EQ(content.records.size(), 1u);
    EXPECT_EQ(content.records[0].bundleIdentifier, "org.example.Notes");
    EXPECT_EQ(content.records[0].dataContainerPath, directory_.path("containers/Notes"));
}

TEST_F(LocalAppLibraryCacheTest, LoadsWhatAnotherCacheWrote) {
    std::vector<std::optional<Application>> applications{application("B"), application("A"), application("C")};
    registry_.setApplications(applications);
    std::vector<registry::BundleRecordPtr> records;
    for (const char* name : {"B", "A", "C"}) {
        records.push_back(registry_.recordForBundleIdentifier(std::string("org.example.") + name));
    }
    auto writer = makeCache();
    ASSERT_TRUE(save(*writer, records, 5, TokenIncrement::no));
    newLines();

    auto reader = makeCache();
    EXPECT_EQ(tokenOf(*reader), 0u);
    auto loaded = load(*reader);
    EXPECT_EQ(loaded.versionToken, 5u);
    ASSERT_EQ(loaded.records.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(loaded.records[i]->bundleIdentifier(), records[i]->bundleIdentifier());
        EXPECT_EQ(loaded.records[i]->dataContainerURL(), records[i]->dataContainerURL());
    }
    EXPECT_EQ(newLines(),
              (Lines{"[DEBUG] read from disk " + sizeOfFile() + " bytes at " + cacheText(),
                     "[DEBUG] loaded 3 app library items from data", "[DEBUG] version token was set to 5 after load"}));
    EXPECT_EQ(tokenOf(*reader), 5u);
}

TEST_F(LocalAppLibraryCacheTest, CountsOneUpForEachIncrement) {
    auto cache = makeCache();
    for (std::uint64_t expected = 1; expected <= 4; ++expected) {
        auto token = save(*cache, {}, 0, TokenIncrement::yes);
        ASSERT_TRUE(token);
        EXPECT_EQ(*token, expected);
        EXPECT_EQ(fileContent().versionToken, expected);
    }
    auto later = makeCache();
    load(*later);
    EXPECT_EQ(save(*later, {}, 0, TokenIncrement::yes).value_or(0), 5u);
}

TEST_F(LocalAppLibraryCacheTest, KeepsAHigherTokenInMemoryThanTheFileHas) {
    auto cache = makeCache();
    ASSERT_TRUE(save(*cache, {}, 7, TokenIncrement::no));
    writeCacheFile(encodeAppLibraryList({5, {}}));
    newLines();
    EXPECT_EQ(load(*cache).versionToken, 5u);
    EXPECT_EQ(tokenOf(*cache), 7u);
    EXPECT_EQ(newLines(), (Lines{"[DEBUG] read from disk " + sizeOfFile() + " bytes at " + cacheText(),
                                 "[DEBUG] loaded 0 app library items from data"}));
    EXPECT_EQ(save(*cache, {}, 0, TokenIncrement::yes).value_or(0), 8u);
}

TEST_F(LocalAppLibraryCacheTest, LowersTheTokenBySavingALowerOne) {
    auto cache = makeCache();
    ASSERT_TRUE(save(*cache, {}, 7, TokenIncrement::no));
    EXPECT_EQ(save(*cache, {}, 3, TokenIncrement::no).value_or(0), 3u);
    EXPECT_EQ(tokenOf(*cache), 3u);
    EXPECT_EQ(fileContent().versionToken, 3u);
    EXPECT_EQ(save(*cache, {}, 0, TokenIncrement::yes).value_or(0), 4u);
}

TEST_F(LocalAppLibraryCacheTest, ReadsDamagedFilesAsNothingSaysWhyAndLeavesThem) {
    using archive::ArchivedArray;
    using archive::ArchivedDictionary;
    using archive::Integer;
    const std::string badToken = "[DEBUG] version token invalid; data on disk is corrupted let's reset";
    const std::string badProxies = "[DEBUG] bundle proxies invalid; data on disk is corrupted let's reset";
    auto file = [](ArchivedDictionary dictionary) { return archive::archiveRoot({std::move(dictionary)}); };
    struct Row {
        const char* name;
        Bytes bytes;
        std::string line;
    };
    const Row rows[] = {
        {"an empty file", {}, badToken},
        {"other bytes", Bytes(64, 0x20), badToken},
        {"a string as the token", file({{"versionToken", {std::string("3")}}, {"bundleProxy", {ArchivedArray{}}}}),
         badToken},
        {"a negative token", file({{"versionToken", {Integer::fromSigned(-3)}}, {"bundleProxy", {ArchivedArray{}}}}),
         badToken},
        {"a floating token", file({{"versionToken", {3.5}}, {"bundleProxy", {ArchivedArray{}}}}), badToken},
        {"no records", file({{"versionToken", {Integer::fromUnsigned(3)}}}), badProxies},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        auto cache = makeCache();
        ASSERT_TRUE(save(*cache, {}, 2, TokenIncrement::no));
        writeCacheFile(row.bytes);
        newLines();
        auto loaded = load(*cache);
        EXPECT_EQ(loaded.versionToken, 0u);
        EXPECT_TRUE(loaded.records.empty());
        EXPECT_EQ(tokenOf(*cache), 2u);
        EXPECT_EQ(newLines(),
                  (Lines{"[DEBUG] read from disk " + std::to_string(row.bytes.size()) + " bytes at " + cacheText(),
                         row.line}));
        EXPECT_EQ(testing::readFile(cachePath()), textOf(row.bytes));
        EXPECT_EQ(save(*cache, {}, 0, TokenIncrement::yes).value_or(0), 3u);
        EXPECT_EQ(load(*cache).versionToken, 3u);
    }
}

TEST_F(LocalAppLibraryCacheTest, SurvivesAFileCutOrFlippedAnywhere) {
    auto writer = makeCache();
    ASSERT_TRUE(save(*writer, {record("Notes")}, 9, TokenIncrement::no));
    const std::string whole = testing::readFile(cachePath());
    for (std::size_t at = 0; at < whole.size(); ++at) {
        writeCacheFile(bytesOf(std::string_view(whole).substr(0, at)));
        auto cut = makeCache();
        auto loaded = load(*cut);
        EXPECT_EQ(loaded.versionToken, 0u) << "cut at " << at;
        EXPECT_TRUE(loaded.records.empty()) << "cut at " << at;

        std::string flipped = whole;
        flipped[at] = static_cast<char>(flipped[at] ^ 0xff);
        writeCacheFile(bytesOf(flipped));
        auto cache = makeCache();
        loaded = load(*cache);
        EXPECT_LE(loaded.records.size(), 1u) << "flipped at " << at;
        EXPECT_EQ(tokenOf(*cache), loaded.versionToken) << "flipped at " << at;
    }
}

TEST_F(LocalAppLibraryCacheTest, ReadsNoFileThatIsTooLarge) {
    auto cache = makeCache();
    testing::makeDirectories(directory_.path("data/Tarnwell Storage"));
    testing::writeFile(cachePath(), "");
    ASSERT_EQ(::truncate(cachePath().c_str(), kMaxCacheFileBytes), 0);
    load(*cache);
    EXPECT_EQ(newLines(), (Lines{"[DEBUG] read from disk 16777216 bytes at " + cacheText(),
                                 "[DEBUG] version token invalid; data on disk is corrupted let's reset"}));
    ASSERT_EQ(::truncate(cachePath().c_str(), kMaxCacheFileBytes + 1), 0);
    load(*cache);
    EXPECT_EQ(newLines(), Lines{"[DEBUG] nothing cached on disk"});
}

TEST_F(LocalAppLibraryCacheTest, ReadsAFolderInPlaceOfTheFileAsNothing) {
    testing::makeDirectories(cachePath());
    auto cache = makeCache();
    EXPECT_EQ(load(*cache).versionToken, 0u);
    EXPECT_EQ(newLines(), Lines{"[DEBUG] nothing cached on disk"});
}

TEST_F(LocalAppLibraryCacheTest, MakesItsFolderAgainAfterItWasDeleted) {
    auto cache = makeCache();
    ASSERT_TRUE(save(*cache, {}, 0, TokenIncrement::yes));
    std::filesystem::remove_all(directory_.path("data"));
    EXPECT_EQ(save(*cache, {}, 0, TokenIncrement::yes).value_or(0), 2u);
    EXPECT_EQ(fileContent().versionToken, 2u);
    EXPECT_EQ(filesInFolder(), Lines{"app-libraries.plist"});
}

TEST_F(LocalAppLibraryCacheTest, KeepsItsTokenWhenTheFolderCannotBeMade) {
    auto cache = makeCache();
    ASSERT_TRUE(save(*cache, {}, 4, TokenIncrement::no));
    std::filesystem::remove_all(directory_.path("data"));
    testing::writeFile(directory_.path("data"), "a file");
    newLines();
    auto token = save(*cache, {}, 0, TokenIncrement::yes);
    ASSERT_FALSE(token);
    EXPECT_EQ(token.error().domain, ErrorDomain::posix);
    EXPECT_EQ(token.error().code, ENOTDIR);
    EXPECT_EQ(tokenOf(*cache), 4u);
    EXPECT_EQ(newLines(), Lines{});
    EXPECT_EQ(testing::readFile(directory_.path("data")), "a file");
}

TEST_F(LocalAppLibraryCacheTest, KeepsItsTokenWhenTheFileCannotBeReplaced) {
    testing::makeDirectories(cachePath() + "/in the way");
    auto cache = makeCache();
    auto token = save(*cache, {}, 0, TokenIncrement::yes);
    ASSERT_FALSE(token);
    EXPECT_EQ(token.error().domain, ErrorDomain::posix);
    EXPECT_EQ(tokenOf(*cache), 0u);
    EXPECT_EQ(filesInFolder(), Lines{"app-libraries.plist"});
}

/// Run in a child process that is an ordinary user: 0 when a save into the folder fails and leaves all as it was.
int saveWithoutPermission(const std::string& folder, Roots& roots) {
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) return 2;
    testing::CapturingLog sink;
    auto pool = dispatch::ThreadPool::create();
    items::ProgramLog log(sink, pool);
    testing::FakeAppRegistry registry(roots);
    LocalAppLibraryCache cache(log, registry, pool, "main", URL::file(folder + "/app-libraries.plist"));
    return cache.queue().sync([&] {
        if (cache.load().versionToken != 6) return 3;
        auto token = cache.save({}, 0, TokenIncrement::yes);
        if (token || !token.error().is(ErrorDomain::posix, EACCES)) return 4;
        return cache.versionToken() == 6 ? 0 : 5;
    });
}

TEST_F(LocalAppLibraryCacheTest, KeepsFileAndTokenWhereItMayNotWrite) {
    const std::string folder = directory_.path("data/Tarnwell Storage");
    auto cache = makeCache();
    ASSERT_TRUE(save(*cache, {}, 6, TokenIncrement::no));
    const std::string before = testing::readFile(cachePath());
    ASSERT_EQ(::chmod(directory_.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(directory_.path("data").c_str(), 0755), 0);
    ASSERT_EQ(::chmod(cachePath().c_str(), 0644), 0);
    ASSERT_EQ(::chmod(folder.c_str(), 0555), 0);

    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) ::_exit(saveWithoutPermission(folder, roots_));
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(testing::readFile(cachePath()), before);
    EXPECT_EQ(filesInFolder(), Lines{"app-libraries.plist"});
    ASSERT_EQ(::chmod(folder.c_str(), 0755), 0);
}

TEST_F(LocalAppLibraryCacheDeathTest, StopsWhenTheTokenCannotGrow) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto cache = makeCache();
    const auto largest = std::numeric_limits<std::uint64_t>::max();
    EXPECT_EQ(save(*cache, {}, largest - 1, TokenIncrement::no).value_or(0), largest - 1);
    EXPECT_EQ(save(*cache, {}, 0, TokenIncrement::yes).value_or(0), largest);
    EXPECT_DEATH((void)save(*cache, {}, 0, TokenIncrement::yes), "can't grow any further");
    EXPECT_EQ(fileContent().versionToken, largest);
}

TEST_F(LocalAppLibraryCacheDeathTest, StopsOutsideItsQueue) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto cache = makeCache();
    EXPECT_DEATH((void)cache->load(), "not on the queue");
    EXPECT_DEATH((void)cache->save({}, 1, TokenIncrement::no), "not on the queue");
    EXPECT_DEATH((void)cache->versionToken(), "not on the queue");
    EXPECT_FALSE(std::filesystem::exists(directory_.path("data")));
}

}  // namespace
}  // namespace tarnwell::applibraries
