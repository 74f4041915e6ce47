#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <set>

#include "testing/RandomChanges.h"
#include "tests/deep/Mirror.h"

namespace tarnwell::deep {

using testing::RandomChanges;
namespace {

using testing::makeDirectories;
using testing::writeFile;

/// A mirror that is kept over batches of changes, and all that is checked after each.
class MirrorRun {
public:
    MirrorRun() { remember(); }

    DeepDevice& device() { return device_; }

    /// Looks at everything, in one order or the other: what one look finds out must not be missing in the other.
    enum class First { history, listing };
    Problems check(First first, Looks looks) {
        const Disk disk = readDisk(device_.device().path());
        Listing listing;
        std::optional<std::vector<ToldChange>> told;
        if (first == First::listing) listing = listEverything(device_, disk);
        told = device_.changesSince(position_);
        device_.waitUntilQuiet();
        if (first == First::history) listing = listEverything(device_, disk);
        if (!told) return {"the history is not told"};

        // What a safe-save dropped is put back, which the kernel tells of as of any other change.
        if (device_.device().liveStatus()) keepTheLastOfEach(*told);
        Problems problems = compareWithDisk(listing, disk);
        add(problems, ledger_.check(listing, disk, looks));
        add(problems, compareHistory(*told, listing_, listing, disk_, disk, looks));
        mirror_.apply(*told);
        add(problems, mirror_.compare(listing));
        for (const ToldChange& change : *told) {
            account_.push_back(std::string("  told: ") + (change.deleted ? "- " : "+ ") + change.identifier + " " +
                               change.path);
        }
        remember();
        return problems;
    }

    void note(std::string line) {
        account_.push_back(std::move(line));
        if (account_.size() > 400) account_.pop_front();
    }
    std::string account() const {
        std::string text;
        for (const auto& line : account_) text += line + "\n";
        return text;
    }

private:
    static void keepTheLastOfEach(std::vector<ToldChange>& told) {
        std::set<std::pair<std::string, std::string>> seen;
        std::vector<ToldChange> kept;
        for (auto change = told.rbegin(); change != told.rend(); ++change) {
            if (change->deleted || seen.emplace(change->identifier, change->path).second) kept.push_back(*change);
        }
        told.assign(kept.rbegin(), kept.rend());
    }
    static void add(Problems& problems, Problems more) {
        problems.insert(problems.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
    }
    void remember() {
        disk_ = readDisk(device_.device().path());
        listing_ = listEverything(device_, disk_);
        mirror_.reset(listing_);
        position_ = device_.device().settle();
    }

    DeepDevice device_;
    Disk disk_;
    Listing listing_;
    Mirror mirror_;
    IdentityLedger ledger_;
    EventID position_{};
    std::deque<std::string> account_;
};

std::string joined(const Problems& problems) {
    std::string text;
    for (const auto& problem : problems) text += problem + "\n";
    return text;
}

/// `source` keeps the index, or comparing does.
void checkThroughRandomChanges(std::optional<watch::SourceChoice> source) {
    const std::uint64_t seed = chooseSeed("IndexMirror");
    const std::size_t operations = isLongRun() ? 50'000 : 2'000;
    MirrorRun run;
    if (source) run.device().device().watch(*source);
    RandomChanges changes(run.device().device().path(), seed,
                          {.mostNames = 150, .outside = "/etc/passwd", .makesHardLinks = !source});
    std::size_t done = 0;
    while (done < operations) {
        const std::size_t batch = 1 + changes.below(40);
        const bool isLookedAt = changes.below(2) == 0;
        for (std::size_t i = 0; i < batch; ++i) {
            run.note(std::to_string(done++) + ": " + changes.step());
            // What somebody looks at in between is known from then on, the rest is not.
            switch (isLookedAt ? changes.below(30) : 30) {
                case 0:
                    run.note("  settled");
                    run.device().device().settle();
                    break;
                case 1: {
                    const std::string path = changes.anyPath();
                    run.note("  asked for " + path);
                    if (!path.empty()) (void)run.device().identifierOf(path);
                    break;
                }
                case 2: {
                    run.note("  listed the top");
                    (void)run.device().list(hostframework::kRootContainer, host::Depth::direct);
                    break;
                }
                default:
                    break;
            }
            run.device().waitUntilQuiet();
        }
        if (changes.below(8) == 0) {
            run.note("  restarted");
            run.device().restart();
        }
        const Problems problems =
            run.check(changes.below(2) == 0 ? MirrorRun::First::history : MirrorRun::First::listing,
                      isLookedAt || source ? Looks::inBetween : Looks::none);
        ASSERT_TRUE(problems.empty()) << joined(problems) << "after, with TARNWELL_DEEP_SEED=" << seed << ":\n"
                                      << run.account();
    }
}

TEST(IndexMirror, ListingsIdentifiersAndHistoryStayTrueThroughRandomChanges) {
    checkThroughRandomChanges(std::nullopt);
}

TEST(IndexMirror, TheyDoWhileTheKernelTellsOfThem) { checkThroughRandomChanges(watch::SourceChoice::automatic); }

TEST(IndexMirror, TheyDoWhileInotifyTellsOfThem) { checkThroughRandomChanges(watch::SourceChoice::inotify); }

// What the checks above would find if the program were wrong.

class MirrorChecks : public ::testing::Test {
protected:
    MirrorChecks() {
        makeDirectories(device_.device().path("folder"));
        writeFile(device_.device().path("folder/one.txt"), "1");
        writeFile(device_.device().path("two.txt"), "22");
        disk_ = readDisk(device_.device().path());
        listing_ = listEverything(device_, disk_);
        mirror_.reset(listing_);
        position_ = device_.device().settle();
    }

    DeepDevice device_;
    Disk disk_;
    Listing listing_;
    Mirror mirror_;
    EventID position_{};
};

TEST_F(MirrorChecks, AreSatisfiedWithARealListing) {
    EXPECT_EQ(compareWithDisk(listing_, disk_), Problems{});
    EXPECT_EQ(listing_.items.size(), 3u);
}

TEST_F(MirrorChecks, FindAnItemThatIsNotListed) {
    listing_.items.erase(listing_.identifiers.at("two.txt"));
    listing_.identifiers.erase("two.txt");
    EXPECT_EQ(compareWithDisk(listing_, disk_), Problems{"two.txt is not listed"});
}

TEST_F(MirrorChecks, FindAnItemThatIsNotThere) {
    disk_.erase("two.txt");
    EXPECT_EQ(compareWithDisk(listing_, disk_), Problems{"two.txt is listed but not there"});
}

TEST_F(MirrorChecks, FindWrongValues) {
    listing_.items.at(listing_.identifiers.at("two.txt")).size = 3;
    listing_.items.at(listing_.identifiers.at("folder/one.txt")).parent = hostframework::kRootContainer;
    EXPECT_EQ(compareWithDisk(listing_, disk_).size(), 2u);
}

TEST_F(MirrorChecks, FindAnIdentifierThatCameToAnotherObject) {
    IdentityLedger ledger;
    EXPECT_EQ(ledger.check(listing_, disk_), Problems{});
    EXPECT_EQ(ledger.check(listing_, disk_), Problems{});
    disk_.at("folder").key.first += 1;
    EXPECT_EQ(ledger.check(listing_, disk_).size(), 1u);
    std::swap(listing_.identifiers.at("folder/one.txt"), listing_.identifiers.at("two.txt"));
    EXPECT_EQ(ledger.check(listing_, disk_).size(), 2u);
}

TEST_F(MirrorChecks, FindAChangeThatWasNotTold) {
    writeFile(device_.device().path("new.txt"), "333");
    writeFile(device_.device().path("two.txt"), "4444");
    ASSERT_EQ(std::remove(device_.device().path("folder/one.txt").c_str()), 0);
    const auto told = device_.changesSince(position_);
    ASSERT_TRUE(told);
    ASSERT_EQ(told->size(), 4u);
    const Disk diskAfter = readDisk(device_.device().path());
    const Listing after = listEverything(device_, diskAfter);
    EXPECT_EQ(compareHistory(*told, listing_, after, disk_, diskAfter), Problems{});
    for (std::size_t swallowed = 0; swallowed < told->size(); ++swallowed) {
        auto some = *told;
        some.erase(some.begin() + static_cast<std::ptrdiff_t>(swallowed));
        EXPECT_EQ(compareHistory(some, listing_, after, disk_, diskAfter).size(), 1u) << (*told)[swallowed].path;
        Mirror mirror = mirror_;
        mirror.apply(some);
        EXPECT_EQ(mirror.compare(after).size(), 1u) << (*told)[swallowed].path;
    }
    auto twice = *told;
    twice.push_back(twice.front());
    EXPECT_FALSE(compareHistory(twice, listing_, after, disk_, diskAfter).empty() && !twice.front().deleted);
    mirror_.apply(*told);
    EXPECT_EQ(mirror_.compare(after), Problems{});
}

}  // namespace
}  // namespace tarnwell::deep
