#include <cerrno>
#include <filesystem>
#include <set>

#include "applibraries/AppLibraryCacheFile.h"
#include "testing/SystemCallFaults.h"
#include "tests/applibraries/AppLibraryFixture.h"

/// A save of a cache file with a kill and with an error at each of its system calls in turn: the next start finds the
/// list as it was or as it was to be, and can go on from there.
namespace tarnwell::applibraries {
namespace {

using testing::FaultedRun;
using testing::SystemCallFault;

/// What the process says that makes the save.
constexpr const char* kSaved = "saved";

class CacheSaveFaultsTest : public CacheTest {
protected:
    /// The identifiers and the token of the list on disk, as a new start reads it.
    std::string listOnDisk() {
        const auto cache = makeCache();
        const AppLibraryRecords list = load(*cache);
        std::string text = std::to_string(list.versionToken);
        for (const auto& record : list.records) text += " " + record->bundleIdentifier().value_or("none");
        return text;
    }
    /// Nobody can be expected to clear up after a kill but the next save.
    std::size_t filesInFolder() const {
        const auto folder = std::filesystem::path(cachePath()).parent_path();
        if (!std::filesystem::exists(folder)) return 0;
        return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
    }
    void begin(bool isFirst) {
        std::filesystem::remove_all(directory_.path("data"));
        if (isFirst) return;
        const auto cache = makeCache();
        ASSERT_TRUE(save(*cache, {one_}, 0, TokenIncrement::yes));
    }
    /// Saves the next list in a process of its own, which the fault befalls.
    std::optional<FaultedRun> saveWith(const SystemCallFault& fault) {
        return testing::runWithFault(fault, [&](const std::function<void()>& begin) -> std::string {
            const auto cache = makeCache();
            (void)load(*cache);
            begin();
            const auto saved = save(*cache, {one_, two_}, 0, TokenIncrement::yes);
            if (saved) return kSaved;
            return tokenOf(*cache) == (isFirst_ ? 0 : 1) ? describe(saved.error()) : "the token grew";
        });
    }
    /// Goes through the calls; the number of runs in which the fault befell, and what the disk held after them.
    void check(SystemCallFault fault) {
        for (const bool isFirst : {true, false}) {
            isFirst_ = isFirst;
            const std::string before = isFirst ? "0" : "1 org.example.One";
            const std::string after =
                isFirst ? "1 org.example.One org.example.Two" : "2 org.example.One org.example.Two";
            std::set<std::string> seen;
            std::size_t befell = 0;
            for (fault.at = 0;; ++fault.at) {
                SCOPED_TRACE(std::string(isFirst ? "the first save" : "a later save") + ", call " +
                             std::to_string(fault.at));
                begin(isFirst);
                const auto run = saveWith(fault);
                if (!run) GTEST_SKIP() << "the kernel allows no filter of system calls";
                const std::string found = listOnDisk();
                if (!run->befell) {
                    EXPECT_EQ(run->text, kSaved);
                    EXPECT_EQ(found, after);
                    break;
                }
                ++befell;
                seen.insert(found);
                EXPECT_TRUE(found == before || found == after) << found;
                if (run->ended) {
                    EXPECT_NE(run->text, "the token grew");
                    if (run->text == kSaved) {
                        EXPECT_EQ(found, after);
                    }
                }
                // A next start saves its own list, whatever was left behind.
                const auto cache = makeCache();
                const auto token = load(*cache).versionToken;
                const auto saved = save(*cache, {two_}, 0, TokenIncrement::yes);
                ASSERT_TRUE(saved);
                EXPECT_EQ(*saved, token + 1);
                EXPECT_EQ(listOnDisk(), std::to_string(token + 1) + " org.example.Two");
                EXPECT_LE(filesInFolder(), 2U) << "what was cut off and the list";
            }
            EXPECT_GE(befell, 5U);
            EXPECT_EQ(seen, (std::set{before, after}));
        }
    }

    registry::BundleRecordPtr record(const std::string& name) {
        registry_.setApplications({application("One"), application("Two")});
        return registry_.recordForBundleIdentifier("org.example." + name);
    }
    const registry::BundleRecordPtr one_ = record("One"), two_ = record("Two");
    bool isFirst_ = false;
};

TEST_F(CacheSaveFaultsTest, AKillAtAnyCallLeavesTheOldListOrTheNew) { check({.kind = SystemCallFault::Kind::kill}); }

TEST_F(CacheSaveFaultsTest, AnErrorAtAnyCallLeavesTheOldListOrTheNew) {
    for (const int code : {EIO, ENOSPC}) {
        SCOPED_TRACE(code);
        check({.kind = SystemCallFault::Kind::error, .code = code});
    }
}

}  // namespace
}  // namespace tarnwell::applibraries
