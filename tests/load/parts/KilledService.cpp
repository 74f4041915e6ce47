#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <type_traits>

#include "testing/TemporaryDirectory.h"
#include "tests/load/parts/Scenarios.h"
#include "tests/load/parts/ServedProgram.h"

namespace tarnwell::load {
namespace {

constexpr std::size_t kClients = 4;
/// Longer than any start takes, which the first requests wait for.
constexpr auto kLongestPause = std::chrono::milliseconds(400);
/// Each client's anchors, which it asks from again long after it took them.
constexpr std::size_t kAnchors = 6;

/// What a client has of a container: what it listed and has been told since.
using Picture = std::map<session::ItemIdentifier, std::string>;

/// True for the one error by which a client knows that the service ended while it asked.
bool isServiceEnd(const Error& error) { return error.is(ErrorDomain::posix, ECONNRESET); }
bool isExpired(const Error& error) { return error.is(ErrorDomain::host, session::kSyncAnchorExpired); }

/// Asks all the time, and asks anew whatever the service did not answer because it was killed.
class Asker {
public:
    Asker(const ServedProgram& service, std::string folder) : client_(service.connect()), folder_(std::move(folder)) {}

    /// One round: an anchor, a whole listing, and what has changed since an anchor of long ago.
    void step() {
        const auto anchor = untilAnswered([&] { return client_->currentAnchor(folder_); });
        if (!anchor || !*anchor) return trouble("an anchor failed", anchor ? Error{} : anchor.error());
        std::optional<Picture> picture;
        while (!picture && trouble_.empty()) picture = list();
        if (!picture) return;
        anchors_.push_back({**anchor, std::move(*picture)});
        if (anchors_.size() < kAnchors) return;
        Taken old = std::move(anchors_.front());
        anchors_.pop_front();
        follow(old);
    }

    /// Everything that is known from each anchor has to be what is there, when nobody changes anything any more.
    void finish() {
        while (!anchors_.empty() && trouble_.empty()) {
            Taken old = std::move(anchors_.front());
            anchors_.pop_front();
            if (!follow(old)) continue;
            std::optional<Picture> now;
            while (!now && trouble_.empty()) now = list();
            if (now && old.picture != *now) {
                trouble_ = "from an anchor one comes to " + std::to_string(old.picture.size()) + " items of " +
                           std::to_string(now->size());
            }
            ++compared_;
        }
    }

    const std::string& trouble() const { return trouble_; }
    std::size_t ends() const { return ends_; }
    std::size_t expired() const { return expired_; }
    std::size_t followed() const { return followed_; }
    std::size_t compared() const { return compared_; }

private:
    struct Taken {
        Bytes anchor;
        Picture picture;
    };

    template <typename Ask>
    std::invoke_result_t<Ask> untilAnswered(Ask ask) {
        for (;;) {
            auto outcome = ask();
            if (outcome || !isServiceEnd(outcome.error())) return outcome;
            ++ends_;
        }
    }

    void trouble(const std::string& what, const Error& error) {
        if (trouble_.empty()) trouble_ = what + ": " + describe(error);
    }

    /// Nothing where it has to begin again.
    std::optional<Picture> list() {
        Picture picture;
        std::optional<Bytes> next;
        do {
            const auto page = untilAnswered([&] { return client_->enumerate(folder_, next); });
            if (!page) {
                if (!isExpired(page.error())) trouble("a page failed", page.error());
                return std::nullopt;
            }
            for (const auto& item : page->items) picture[item.identifier] = item.filename;
            next = page->next;
        } while (next);
        return picture;
    }

    /// False where the anchor has expired.
    bool follow(Taken& taken) {
        for (;;) {
            const auto batch = untilAnswered([&] { return client_->changes(folder_, taken.anchor); });
            if (!batch) {
                if (!isExpired(batch.error())) trouble("changes failed", batch.error());
                ++expired_;
                return false;
            }
            for (const auto& change : batch->changes) {
                if (change.item && change.item->parent == folder_) {
                    taken.picture[change.identifier] = change.item->filename;
                } else {
                    taken.picture.erase(change.identifier);
                }
            }
            taken.anchor = batch->anchor;
            if (!batch->moreComing) break;
        }
        ++followed_;
        return true;
    }

    std::unique_ptr<bus::BusSession> client_;
    std::string folder_, trouble_;
    std::deque<Taken> anchors_;
    std::size_t ends_ = 0, expired_ = 0, followed_ = 0, compared_ = 0;
};

/// Makes, renames, removes files in the folder, until it goes.
class Changer {
public:
    Changer(std::string folder, std::uint64_t seed) : folder_(std::move(folder)), random_(seed) {
        thread_ = std::thread([this] {
            while (!isEnding_) {
                change();
                ::usleep(30'000);
            }
        });
    }
    ~Changer() {
        isEnding_ = true;
        thread_.join();
    }

private:
    void change() {
        std::error_code absent;
        const std::string one = name(), other = name();
        switch (random_() % 4) {
            case 0:
                std::filesystem::remove(one, absent);
                break;
            case 1:
                if (!std::filesystem::exists(other)) std::filesystem::rename(one, other, absent);
                break;
            default:
                testing::writeFile(one, std::to_string(random_()));
        }
    }
    std::string name() { return folder_ + "/changing " + std::to_string(random_() % 300) + ".txt"; }

    const std::string folder_;
    std::mt19937_64 random_;
    std::atomic<bool> isEnding_ = false;
    std::thread thread_;
};

}  // namespace

void killedService(std::size_t kills, std::uint64_t seed) {
    const ServedProgram service(ServedProgram::Way::offered);
    const std::string place = service.document("Many");
    std::string folder;
    {
        // The first request starts it.
        const auto client = service.connect();
        ASSERT_TRUE(client);
        const auto found = client->identifiersAtPaths({place}, session::PathUse::lookUp).at(0);
        ASSERT_TRUE(found) << describe(found.error());
        folder = *found;
    }
    std::mt19937_64 random(seed);
    std::deque<Asker> askers;
    for (std::size_t i = 0; i < kClients; ++i) askers.emplace_back(service, folder);
    std::atomic<bool> isEnding = false;
    std::vector<std::thread> threads;
    std::size_t killed = 0;
    {
        const Changer changer(place, seed);
        for (auto& asker : askers) {
            threads.emplace_back([&] {
                while (!isEnding && asker.trouble().empty()) asker.step();
            });
        }
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30 + 5 * kills) * kTimeFactor;
        while (killed < kills && std::chrono::steady_clock::now() < end) {
            ::usleep(static_cast<unsigned>(random() % std::chrono::microseconds(kLongestPause).count()));
            // Nobody but the askers starts it again.
            if (const pid_t process = service.process(); process > 0 && ::kill(process, SIGKILL) == 0) ++killed;
        }
    }
    isEnding = true;
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(killed, kills);
    std::size_t ends = 0, expired = 0, followed = 0, compared = 0;
    for (auto& asker : askers) {
        asker.finish();
        EXPECT_EQ(asker.trouble(), "");
        ends += asker.ends();
        expired += asker.expired();
        followed += asker.followed();
        compared += asker.compared();
    }
    std::printf(
        "%zu kills: %zu requests were under way; from %zu anchors changes were told, %zu had expired; %zu "
        "compared with what is there\n",
        killed, ends, followed, expired, compared);
    EXPECT_GT(ends, kills / 2);
    EXPECT_GT(followed, 0U);
    EXPECT_GT(compared, 0U);
    // Killed is no reason to expire, only losing power is.
    EXPECT_EQ(expired, 0U);
}

}  // namespace tarnwell::load
