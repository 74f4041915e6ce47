#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <limits>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "host/SharedChanges.h"
#include "testing/TemporaryDirectory.h"
#include "tests/load/parts/HonestClient.h"
#include "tests/load/parts/Scenarios.h"

namespace tarnwell::load {
namespace {

namespace files = std::filesystem;

constexpr std::size_t kFollowers = 3;
constexpr std::size_t kFolders = 40;
constexpr std::size_t kMostFiles = 1500;
/// So many changes are made between two moments of rest, which makes some four hundred a second.
constexpr std::size_t kBurst = 8;
constexpr unsigned kRest = 15'000;  // microseconds
/// By so much the second half may make the service larger than the first did.
constexpr std::size_t kSlackKiB = 12 * 1024;
/// What the store remembers of a change that is not undone by a later one: a departure with its path, a document's
/// number that ended. Beside it there is the log that SQLite writes ahead, whose size has a limit.
constexpr std::uintmax_t kBytesOfChange = 700, kMostOfLog = 16 << 20;

/// Somebody at a desk: saves as programs do, makes, renames, moves and deletes files and folders.
class Desk {
public:
    Desk(std::string root, std::uint64_t seed) : root_(std::move(root)), random_(seed) {
        for (std::size_t i = 0; i < kFolders; ++i) files::create_directories(folder(i));
    }

    void change() {
        std::error_code absent;
        const std::size_t action = random_() % 20;
        if (names_.size() < 50 || (action < 6 && names_.size() < kMostFiles)) {
            names_.push_back(folder(random_() % kFolders) + "/file " + std::to_string(++last_) + ".txt");
            testing::writeFile(names_.back(), std::to_string(random_()));
        } else if (action < 12) {
            // The new version beside the old one, then in its place.
            const std::string& name = one();
            testing::writeFile(name + ".new", std::to_string(random_()));
            files::rename(name + ".new", name);
        } else if (action < 15) {
            const std::string other = folder(random_() % kFolders) + "/moved " + std::to_string(++last_) + ".txt";
            std::string& name = one();
            files::rename(name, other);
            name = other;
        } else if (action < 19) {
            std::string& name = one();
            files::remove(name);
            name = names_.back();
            names_.pop_back();
        } else {
            const std::string place = root_ + "/short-lived";
            files::create_directories(place + "/inside", absent);
            testing::writeFile(place + "/inside/note.txt", "n");
            files::remove_all(place, absent);
        }
    }

    /// What is there, by path below the desk.
    std::set<std::string> everything() const {
        std::set<std::string> paths;
        for (const auto& entry : files::recursive_directory_iterator(root_)) {
            paths.insert(entry.path().string().substr(root_.size() + 1));
        }
        return paths;
    }

private:
    std::string folder(std::size_t number) const { return root_ + "/folder " + std::to_string(number); }
    std::string& one() { return names_[random_() % names_.size()]; }

    const std::string root_;
    std::mt19937_64 random_;
    std::vector<std::string> names_;
    std::size_t last_ = 0;
};

/// Knows what is on the desk from the changes of the working set alone.
class Follower {
public:
    Follower(const ServedProgram& service, std::string desk) : client_(service.connect()), desk_(std::move(desk)) {
        const auto anchor = client_->currentAnchor("WorkingSetContainer");
        if (!anchor || !*anchor) {
            trouble_ = "there is no anchor";
            return;
        }
        anchor_ = **anchor;
        auto watch = client_->watch("WorkingSetContainer", [this] {
            const std::lock_guard lock(mutex_);
            hasChanged_ = true;
            woken_.notify_one();
        });
        if (!watch) {
            trouble_ = "it cannot be watched: " + describe(watch.error());
            return;
        }
        watch_ = std::move(*watch);
        thread_ = std::thread([this] { run(); });
    }
    ~Follower() {
        end();
        watch_.reset();
    }

    /// Takes in what is left, and ends.
    void end() {
        {
            const std::lock_guard lock(mutex_);
            isEnding_ = true;
            woken_.notify_one();
        }
        if (thread_.joinable()) thread_.join();
    }

    std::set<std::string> everything() const {
        std::set<std::string> paths;
        for (const auto& [identifier, item] : items_) {
            if (const auto path = pathOf(identifier)) paths.insert(*path);
        }
        return paths;
    }
    const std::string& trouble() const { return trouble_; }
    std::size_t told() const { return told_; }

private:
    struct Known {
        session::ItemIdentifier parent;
        std::string name;
    };

    void run() {
        for (bool isLast = false; trouble_.empty() && !isLast;) {
            {
                std::unique_lock lock(mutex_);
                woken_.wait(lock, [&] { return hasChanged_ || isEnding_; });
                hasChanged_ = false;
                isLast = isEnding_;
            }
            while (takeIn()) {
            }
        }
    }

    /// True while more is coming.
    bool takeIn() {
        const auto batch = client_->changes("WorkingSetContainer", anchor_);
        if (!batch) {
            trouble_ = "changes failed: " + describe(batch.error());
            return false;
        }
        for (const auto& change : batch->changes) {
            ++told_;
            if (change.item) {
                items_[change.identifier] = {change.item->parent, change.item->filename};
            } else {
                items_.erase(change.identifier);
            }
        }
        anchor_ = batch->anchor;
        return batch->moreComing;
    }

    /// Below the desk; nothing for what is elsewhere, or hung below what is gone.
    std::optional<std::string> pathOf(session::ItemIdentifier identifier) const {
        std::string path;
        for (int depth = 0; depth < 20; ++depth) {
            const auto found = items_.find(identifier);
            if (found == items_.end()) return std::nullopt;
            path = found->second.name + (path.empty() ? "" : "/" + path);
            if (found->second.parent == desk_) return path;
            identifier = found->second.parent;
        }
        return std::nullopt;
    }

    std::unique_ptr<bus::BusSession> client_;
    const std::string desk_;
    std::string trouble_;
    Bytes anchor_;
    std::map<session::ItemIdentifier, Known> items_;
    std::size_t told_ = 0;
    std::mutex mutex_;
    std::condition_variable woken_;
    bool hasChanged_ = false, isEnding_ = false;
    std::unique_ptr<session::Watch> watch_;
    std::thread thread_;
};

std::uintmax_t sizeOf(const std::string& file) {
    std::error_code absent;
    const auto size = files::file_size(file, absent);
    return absent ? 0 : size;
}

}  // namespace

void busyDays(std::size_t changes, std::uint64_t seed) {
    const ServedProgram service;
    Desk desk(service.document("Desk"), seed);
    std::string identifier;
    ASSERT_TRUE(within(std::chrono::seconds(10), [&] {
        const auto found =
            service.connect()->identifiersAtPaths({service.document("Desk")}, session::PathUse::lookUp).at(0);
        identifier = found.value_or("");
        return found.has_value();
    }));
    const std::string store = service.stateFolder() + "/index.sqlite";
    const std::uintmax_t storeBefore = sizeOf(store);
    // They are told of what comes after their anchor, so that is where everything of the desk comes.
    std::deque<Follower> followers;
    for (std::size_t i = 0; i < kFollowers; ++i) followers.emplace_back(service, identifier);
    for (std::size_t i = 0; i < kFolders; ++i) {
        const std::string folder = service.document("Desk/folder " + std::to_string(i));
        files::remove_all(folder);
        files::create_directory(folder);
    }

    HonestClient honest(service);
    struct Half {
        std::size_t residentKiB = 0;
        std::size_t descriptors = std::numeric_limits<std::size_t>::max();  ///< the fewest: some come and go
        std::uintmax_t log = 0;
    };
    std::array<Half, 2> halves;
    const auto begin = std::chrono::steady_clock::now();
    for (std::size_t made = 0; made < changes && service.isRunning(); ++made) {
        desk.change();
        if (made % kBurst != 0) continue;
        ::usleep(kRest);
        if (made % (16 * kBurst) != 0) continue;
        if (made < changes / 8) continue;  // what is opened at first use is not open yet
        Half& half = halves.at(made * 2 / changes);
        const Footprint now = service.footprint();
        half.residentKiB = std::max(half.residentKiB, now.residentKiB);
        half.descriptors = std::min(half.descriptors, now.descriptors);
        half.log = std::max(half.log, sizeOf(store + "-wal"));
    }
    const auto taken = std::chrono::steady_clock::now() - begin;
    EXPECT_TRUE(service.isRunning()) << service.complaints();
    // Lists that several clients are told are held for a moment; every follower's question lets go of older ones.
    EXPECT_TRUE(within(std::chrono::seconds(20),
                       [&] {
                           desk.change();
                           return service.footprint().descriptors <= halves[0].descriptors;
                       }))
        << service.footprint().descriptors << " descriptors are open, " << halves[0].descriptors
        << " were in the first half";
    EXPECT_EQ(honest.verdict(), "");
    const auto there = desk.everything();
    for (auto& follower : followers) {
        follower.end();
        EXPECT_EQ(follower.trouble(), "");
        EXPECT_GE(follower.told(), changes / 4);
        // Those of a set are many; their number and the first that differ say enough.
        const auto known = follower.everything();
        std::vector<std::string> differing;
        std::ranges::set_symmetric_difference(known, there, std::back_inserter(differing));
        EXPECT_TRUE(differing.empty()) << differing.size() << " differ, such as " << differing.front() << ", which is "
                                       << (there.contains(differing.front()) ? "not told" : "not there");
    }
    const std::uintmax_t grown = sizeOf(store) - storeBefore;
    std::printf(
        "%zu changes in %.0f s; halves: %zu and %zu KiB, %zu and %zu descriptors, logs of %ju and %ju KiB; the "
        "store grew by %ju KiB, %.0f bytes a change\n",
        changes, std::chrono::duration<double>(taken).count(), halves[0].residentKiB, halves[1].residentKiB,
        halves[0].descriptors, halves[1].descriptors, halves[0].log / 1024, halves[1].log / 1024, grown / 1024,
        static_cast<double>(grown) / static_cast<double>(changes));
    if (!kIsSanitized) {
        EXPECT_LE(halves[1].residentKiB, halves[0].residentKiB + kSlackKiB);
    }
    // Between the two lie at most the lists of a moment.
    EXPECT_LE(halves[1].descriptors, halves[0].descriptors + host::SharedChanges::kMostBatches);
    EXPECT_LE(std::max(halves[0].log, halves[1].log), kMostOfLog);
    EXPECT_LE(grown, kBytesOfChange * changes);
}

}  // namespace tarnwell::load
