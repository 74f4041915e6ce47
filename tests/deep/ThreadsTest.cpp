#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

#include "hostframework/HostError.h"
#include "items/TarnwellError.h"
#include "testing/RandomChanges.h"
#include "tests/deep/Mirror.h"

namespace tarnwell::deep {

using testing::RandomChanges;
namespace {

/// Identifiers that the threads found, for one another.
class Found {
public:
    void add(const std::string& identifier) {
        std::lock_guard lock(mutex_);
        if (identifiers_.size() < 1000) {
            identifiers_.push_back(identifier);
        } else {
            identifiers_[next_++ % identifiers_.size()] = identifier;
        }
    }
    std::string any(std::uint64_t choice) {
        std::lock_guard lock(mutex_);
        return identifiers_.empty() ? hostframework::kRootContainer : identifiers_[choice % identifiers_.size()];
    }

private:
    std::mutex mutex_;
    std::vector<std::string> identifiers_;
    std::size_t next_ = 0;
};

TEST(Threads, ListLookUpAndResolveTogetherWhileFilesChange) {
    const std::uint64_t seed = chooseSeed("Threads");
    const auto duration = isLongRun() ? std::chrono::seconds(60) : std::chrono::seconds(2);
    DeepDevice device;
    const std::string root = device.device().path();
    Found found;
    std::atomic<bool> over{false};
    std::array<std::atomic<std::uint64_t>, 5> turns{};

    std::vector<std::thread> threads;
    const auto start = [&](std::size_t number, std::function<void(std::mt19937_64&)> turn) {
        threads.emplace_back([&, number, turn = std::move(turn)] {
            std::mt19937_64 random(seed + number);
            while (!over) {
                turn(random);
                ++turns[number];
            }
        });
    };
    start(0, [&](auto&) {
        const auto items = device.list(hostframework::kRootContainer, host::Depth::recursive);
        if (!items) {
            // A folder that goes between its enumerator and its listing has no volume to ask for.
            EXPECT_TRUE(items.error() == hostframework::syncAnchorExpired() ||
                        items.error().domain == ErrorDomain::deviceUUID)
                << describe(items.error());
            return;
        }
        for (const auto& [item, path] : *items) found.add(item->itemIdentifier());
    });
    start(1, [&](auto& random) {
        const auto item = device.provider().itemForIdentifier(found.any(random()));
        EXPECT_TRUE(item || item.error() == items::makeError(items::TarnwellError::invalidItemIdentifier));
    });
    start(2, [&](auto& random) {
        const auto url = device.provider().URLForItemWithPersistentIdentifier(found.any(random()));
        if (!url) return;
        if (const auto identifier = device.provider().persistentIdentifierForItemAtURL(*url)) found.add(*identifier);
    });
    start(3, [&](auto& random) {
        switch (random() % 4) {
            case 0: {
                const auto anchor = host::currentSyncAnchor(device.provider(), hostframework::kWorkingSetContainer);
                EXPECT_TRUE(anchor.has_value());
                break;
            }
            case 1:
                EXPECT_TRUE(device.changesSince(EventID{}).has_value()) << "everything is still told";
                break;
            case 2:
                device.device().settle();
                break;
            default: {
                const auto page =
                    device.page(hostframework::kAllDirectoriesContainer, hostframework::kInitialPageSortedByName);
                EXPECT_EQ(page.finishes, 1);
            }
        }
    });
    RandomChanges changes(root, seed, {.mostNames = 120, .outside = "/etc/passwd"});
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end) {
        for (int i = 0; i < 10; ++i) changes.step();
        ++turns[4];
    }
    over = true;
    for (auto& thread : threads) thread.join();
    for (std::size_t i = 0; i < turns.size(); ++i) EXPECT_GT(turns[i], 0u) << "thread " << i;

    device.waitUntilQuiet();
    const Disk disk = readDisk(root);
    EXPECT_EQ(compareWithDisk(listEverything(device, disk), disk), Problems{}) << "TARNWELL_DEEP_SEED=" << seed;
}

TEST(Threads, EnumeratorsComeAndGoOnManyThreads) {
    DeepDevice device;
    for (const char* name : {"a", "b", "c"}) testing::makeDirectories(device.device().path(name));
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&, number] {
            const std::string names[] = {"a", "b", "c"};
            for (int i = 0; i < 60; ++i) {
                const auto identifier = device.identifierOf(names[(i + number) % 3]);
                auto enumerator = identifier ? device.provider().enumeratorForContainerItemIdentifier(*identifier)
                                             : failure(posixError(ENOENT));
                if (!enumerator) {
                    ++failures;
                    continue;
                }
                testing::writeFile(device.device().path(names[i % 3] + "/" + std::to_string(number)),
                                   std::to_string(i));
                if (i % 2 == 0) pageOf(**enumerator, hostframework::kInitialPageSortedByName);
                (*enumerator)->invalidate();
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures, 0);
}

}  // namespace
}  // namespace tarnwell::deep
