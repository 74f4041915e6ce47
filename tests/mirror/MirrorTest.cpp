#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <limits>
#include <memory>
#include <random>

#include "hostframework/HostError.h"
#include "hostframework/ItemIdentifier.h"
#include "platform/watch/KernelLimits.h"
#include "testing/LongRun.h"
#include "testing/RandomChanges.h"
#include "tests/mirror/Client.h"
#include "tests/mirror/Layout.h"
#include "tests/mirror/Roles.h"
#include "tests/mirror/Truth.h"

namespace tarnwell::mirror {
namespace {

constexpr std::size_t kChangers = 3;
constexpr std::size_t kLinesOfAccount = 4000;

std::size_t operationsWanted() {
    if (const char* given = std::getenv("TARNWELL_MIRROR_OPERATIONS")) return std::strtoull(given, nullptr, 10);
    return testing::isLongRun() ? 200'000 : 13'000;  // and half as many, and a tenth, in the other two tests
}

/// Processes that change files at the same time, and clients that follow as they like.
class Workday {
public:
    Workday(std::uint64_t seed, HostedDevice::Finding finding) : random_(seed), device_(finding) {
        for (std::size_t i = 0; i < kChangers; ++i) {
            changers_.push_back(std::make_unique<ChildProcess>(
                std::vector<std::string>{kChangerRole, device_.home(), std::to_string(random_()), "/etc/passwd",
                                         HostedDevice::nameOf(finding)}));
        }
        clients_.emplace_back(hostframework::kWorkingSetContainer);
        clients_.emplace_back(hostframework::kRootContainer);
        for (Client& client : clients_) expect(client.begin(device_), client);
    }

    /// Some operations, then a moment at which nothing changes and every client that is awake is looked at.
    void round(std::size_t operations) {
        change(operations);
        for (auto i = below(4); i > 0; --i) operate();
        note("--- quiet");
        disturb(6);
        settleFollower();
        bool isAnyoneUpToDate = false;
        std::vector<Client*> upToDate;
        for (Client& client : clients_) {
            const auto choice = below(8);
            if (choice == 0) continue;  // asleep
            if (choice == 1) {
                step(client);  // stops in the middle, if there is one
            } else if (catchUp(client)) {
                upToDate.push_back(&client);
                isAnyoneUpToDate = true;
            }
        }
        if (!isAnyoneUpToDate) return;
        if (const auto truth = lookAt(upToDate)) {
            chooseFollower(*truth);
            rememberItems(*truth);
        }
    }

    /// More happens at once than the kernel keeps for a reader who stands still.
    void burst(std::size_t files) {
        note("--- burst");
        const std::string folder = device_.path("Documents/burst");
        std::filesystem::create_directory(folder);
        (void)catchUp(clients_.front());  // by then the folder is watched
        device_.pause();
        for (std::size_t i = 0; i < files; ++i) testing::writeFile(folder + "/" + std::to_string(i), "");
        device_.goOn();
        settleFollower();
        std::vector<Client*> upToDate;
        for (Client& client : clients_) {
            if (catchUp(client)) upToDate.push_back(&client);
        }
        (void)lookAt(upToDate);
        overflows_ += std::stoull(device_.ask({"status"}).at(1));
        const std::string gone = device_.path(std::string(kOutside) + "/burst");
        std::filesystem::rename(folder, gone);
        std::filesystem::remove_all(gone);
    }
    /// How often the kernel dropped events for the host that was under way when it was last looked at.
    std::uint64_t overflows() const { return overflows_; }
    std::uint64_t mostPolled() const { return mostPolled_; }
    bool isLimited() const { return isLimited_; }
    /// How many of the verbs were done.
    std::size_t verbsDone() const { return done_; }

    const Problems& problems() const { return problems_; }
    std::size_t quietPoints() const { return quietPoints_; }
    std::string account() const {
        std::string text;
        for (const std::string& line : account_) text += line + "\n";
        return text;
    }

private:
    /// Compares clients that are up to date with what is there. Looking identifiers up may tell the program of things
    /// that happened: everybody who is to be compared has been told before.
    std::optional<Truth> lookAt(const std::vector<Client*>& upToDate) {
        auto truth = readTruth(device_);
        if (!truth) {
            problems_.emplace_back("the disk does not come to rest");
            return std::nullopt;
        }
        for (const Client* client : upToDate) compareWith(*client, *truth);
        ++quietPoints_;
        if (device_.finding() == HostedDevice::Finding::limited) {
            const Message status = device_.ask({"status"});
            mostPolled_ = std::max<std::uint64_t>(mostPolled_, std::stoull(status.at(2)));
            isLimited_ = status.at(3) == "limited";
        }
        return truth;
    }

    std::uint64_t below(std::uint64_t bound) { return random_() % bound; }
    void note(std::string line) {
        account_.push_back(std::move(line));
        if (account_.size() > kLinesOfAccount) account_.pop_front();
    }

    /// All together, or one after the other, while clients follow.
    void change(std::size_t operations) {
        const bool together = below(4) != 0;
        const Message order{std::to_string(operations / kChangers), std::to_string(below(3) * 500)};
        for (std::size_t i = 0; i < changers_.size(); ++i) {
            changers_[i]->tell(order);
            if (!together) takeAnswer(i);
        }
        if (!together) return;
        std::vector<std::size_t> busy{0, 1, 2};
        const bool areWatched = below(3) != 0;
        // A host that often starts anew compares so often that nothing of what it is told counts.
        const std::uint64_t calm = below(2) == 0 ? 12 : 120;
        while (!busy.empty()) {
            if (areWatched) {
                disturb(calm);
                if (below(4) == 0) operate();
                Client& client = clients_[below(clients_.size())];
                if (below(2) == 0 && !isFollower(client)) step(client);
                if (isFollower(client)) stepQuietly(client);
            }
            ::usleep(static_cast<useconds_t>(below(10'000)));
            std::erase_if(busy, [&](std::size_t changer) {
                if (!changers_[changer]->hasAnswered()) return false;
                takeAnswer(changer);
                return true;
            });
        }
    }

    void takeAnswer(std::size_t changer) {
        const auto done = changers_[changer]->hear();
        if (!done) {
            problems_.emplace_back("a process that changes files ended");
            return;
        }
        for (const std::string& line : *done) {
            if (line != "nothing") note(std::to_string(changer) + ": " + line);
        }
    }

    /// The program itself changes things, too: what it is asked to do may be impossible by now.
    void operate() {
        if (items_.empty()) return;
        const std::string item = items_[below(items_.size())];
        const std::string folder = folders_.empty() ? item : folders_[below(folders_.size())];
        const std::string name = "by verb " + std::to_string(below(30));
        static constexpr std::array kVerbs{"mkdir",   "import", "rename", "move", "trash",
                                           "restore", "delete", "tag",    "rank"};
        const std::string verb = kVerbs[below(kVerbs.size())];
        Message order{"do", verb, verb == "mkdir" || verb == "import" ? folder : item};
        if (verb == "mkdir" || verb == "rename" || verb == "tag") order.push_back(name);
        if (verb == "import") order.emplace_back("/etc/passwd");
        if (verb == "move") order.push_back(folder);
        if (verb == "rank") order.push_back(std::to_string(below(9)));
        const Message answer = device_.ask(order);
        done_ += answer.at(0) == "ok" ? 1 : 0;
        note("--- " + verb + " " + order.at(2) + (order.size() > 3 ? " " + order.at(3) : "") + ": " + answer.back());
    }
    void rememberItems(const Truth& truth) {
        items_.clear();
        folders_.clear();
        for (const auto& [path, standing] : truth) {
            if (standing.identifier.empty()) continue;
            items_.push_back(standing.identifier);
            if (standing.kept.isFolder) folders_.push_back(standing.identifier);
        }
    }

    /// Now and then the host's process is started anew, or killed in the middle of its work.
    void disturb(std::uint64_t oneIn) {
        if (below(oneIn) == 0) device_.disconnect();
        const auto choice = below(oneIn * 2);
        if (choice == 0) {
            note("--- restart");
            device_.restart();
        } else if (choice == 1) {
            const auto delay = static_cast<unsigned>(below(60'000));
            note("--- kill after " + std::to_string(delay));
            device_.killWhileItAnswers(clients_[below(clients_.size())].request(), delay);
        }
    }

    bool isFollower(const Client& client) const { return client.container().starts_with("fid="); }

    void expect(Client::Outcome outcome, const Client& client) {
        if (outcome == Client::Outcome::expired) problems_.push_back(client.container() + ": the anchor expired");
        if (outcome == Client::Outcome::refused) problems_.push_back(client.container() + ": " + client.problem());
    }

    Client::Outcome stepQuietly(Client& client) {
        const auto outcome = client.step(device_);
        note("--- " + client.container() + " asks: " + std::to_string(client.told().size()) +
             (outcome == Client::Outcome::more       ? ", more"
              : outcome == Client::Outcome::caughtUp ? ""
                                                     : ", " + client.problem()));
        for (const Report& report : client.told()) note("    " + describe(report));
        if (outcome == Client::Outcome::expired) expect(outcome, client);
        return outcome;
    }
    Client::Outcome step(Client& client) {
        const auto outcome = stepQuietly(client);
        if (outcome == Client::Outcome::refused) expect(outcome, client);
        return outcome;
    }
    bool catchUp(Client& client) {
        for (;;) {
            const auto outcome = step(client);
            if (outcome != Client::Outcome::more) return outcome == Client::Outcome::caughtUp;
        }
    }

    void compareWith(const Client& client, const Truth& truth) {
        std::optional<std::string> folder;
        if (isFollower(client)) {
            folder = folderOf(truth, client.container());
            if (!folder) {
                problems_.push_back(client.container() + " was told of a folder that is not there");
                return;
            }
        }
        for (std::string& problem : compare(client.mirror(), truth, folder)) {
            problems_.push_back(client.container() + ": " + std::move(problem));
        }
    }

    /// A client of a folder ends when the folder has left the storage, and has no place or another identifier when it
    /// came back.
    void settleFollower() {
        if (clients_.size() == 2) return;
        const auto place = placeOf(readNames(device_), followed_);
        if (place && device_.ask({"identify", device_.path(*place)}).at(1) == clients_.back().container()) return;
        note("--- " + clients_.back().container() + " left the storage");
        clients_.pop_back();
    }
    void chooseFollower(const Truth& truth) {
        if (clients_.size() == 3 && below(20) != 0) return;
        if (clients_.size() == 3) clients_.pop_back();
        std::vector<const Standing*> folders;
        for (const auto& [path, standing] : truth) {
            if (standing.object.visible && standing.kept.isFolder) folders.push_back(&standing);
        }
        if (folders.empty()) return;
        const Standing& chosen = *folders[below(folders.size())];
        followed_ = chosen.object.key;
        clients_.emplace_back(chosen.identifier);
        note("--- following " + clients_.back().container());
        expect(clients_.back().begin(device_), clients_.back());
    }

    std::mt19937_64 random_;
    HostedDevice device_;
    std::vector<std::unique_ptr<ChildProcess>> changers_;
    std::deque<Client> clients_;
    testing::ObjectKey followed_;  ///< the folder of the last client, where there is a third
    Problems problems_;
    std::deque<std::string> account_;
    std::size_t quietPoints_ = 0;
    std::uint64_t overflows_ = 0, mostPolled_ = 0;
    bool isLimited_ = false;
    std::vector<std::string> items_, folders_;  ///< identifiers, as they were at the last quiet point
    std::size_t done_ = 0;
};

struct Asked {
    std::size_t operations;
    HostedDevice::Finding finding;
    std::size_t burst = 0;  ///< files that are made at once, some time in the run
};

void expectNoProblem(const Workday& run, std::uint64_t seed, std::size_t done) {
    std::string text;
    for (const std::string& problem : run.problems()) text += problem + "\n";
    ASSERT_TRUE(run.problems().empty()) << "with TARNWELL_DEEP_SEED=" << seed << ", after " << done << " operations:\n"
                                        << text << "the account:\n"
                                        << run.account();
}

void followThrough(const Asked& asked) {
    const std::uint64_t seed = testing::chooseSeed("Mirror");
    std::mt19937_64 random(seed);
    Workday run(random(), asked.finding);
    std::size_t untilBurst = asked.burst > 0 ? random() % asked.operations : asked.operations;
    for (std::size_t done = 0; done < asked.operations;) {
        const std::size_t batch = 30 + random() % 400;
        run.round(batch);
        done += batch;
        if (done >= untilBurst && asked.burst > 0) {
            untilBurst = std::numeric_limits<std::size_t>::max();
            run.burst(asked.burst);
        }
        ASSERT_NO_FATAL_FAILURE(expectNoProblem(run, seed, done));
    }
    EXPECT_GT(run.quietPoints(), asked.operations / 1000);
    if (asked.operations >= 2000) {
        EXPECT_GT(run.verbsDone(), 0u);
    }
    if (asked.burst > watch::limits().fanotifyQueuedEvents && asked.burst > watch::limits().inotifyQueuedEvents) {
        EXPECT_GE(run.overflows(), 1u);
    }
    std::printf("%zu operations, %zu quiet points, %zu verbs\n", asked.operations, run.quietPoints(), run.verbsDone());
    if (asked.finding == HostedDevice::Finding::limited) {
        if (!run.isLimited()) GTEST_SKIP() << "this machine does not let a process limit its watches";
        EXPECT_GT(run.mostPolled(), 0u) << "every folder could be watched";
    }
}

TEST(Mirror, EqualsTheDiskAtEveryQuietPointWhereverItStoppedAndResumed) {
    followThrough({.operations = operationsWanted(), .finding = HostedDevice::Finding::comparing});
}

TEST(Mirror, DoesSoWhileTheKernelTellsOfChanges) {
    // A run that is as short as those under sanitizers is long enough without.
    const std::size_t operations = operationsWanted() / 2;
    followThrough({.operations = operations,
                   .finding = HostedDevice::Finding::watching,
                   .burst = operations >= 5'000 ? 40'000u : 0u});
}

TEST(Mirror, DoesSoWhereSomeFoldersCannotBeWatched) {
    // Fewer make too few folders.
    constexpr std::size_t kFewest = 500;
    followThrough(
        {.operations = std::max(operationsWanted() / 10, kFewest), .finding = HostedDevice::Finding::limited});
}

TEST(Mirror, DoesSoOverTheBus) {
    followThrough({.operations = operationsWanted() / 5, .finding = HostedDevice::Finding::serving});
}

}  // namespace
}  // namespace tarnwell::mirror
