#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <map>
#include <memory>

#include "tests/load/parts/HonestClient.h"
#include "tests/load/parts/HostileCalls.h"
#include "tests/load/parts/RawConnection.h"
#include "tests/load/parts/Scenarios.h"

namespace tarnwell::load {
namespace {

constexpr std::size_t kClients = 4;
/// Calls that are not answered yet: mostly as many as a client may have, so that most are looked at.
constexpr std::size_t kWindow = 40;
/// A connection goes after so many calls, with the jobs that it left.
constexpr std::size_t kCallsOfOne = 100;
constexpr auto kLongestAnswer = std::chrono::seconds(30);
/// By so much the second half of the messages may make the service larger than the first did. One request may bring 4
/// MiB.
constexpr std::size_t kSlackKiB = 8 * 1024;

/// One of them, and the next one when it has gone.
class Attacker {
public:
    Attacker(const ServedProgram& service, HostileCalls& calls) : service_(service), calls_(calls) {}

    /// Sends what it may, reads what is there.
    void step(std::size_t& left) {
        if (!connection_ && left > 0) connection_ = std::make_unique<RawConnection>(service_.address());
        if (!connection_) return;
        isOpen_ = connection_->read();
        while (isOpen_ && left > 0 && waiting_ < kWindow && sent_ < kCallsOfOne) {
            if (ask(calls_.next(*connection_))) --left;
        }
        if (!isOpen_) ++ended_;
        if (isOpen_ && (waiting_ > 0 || (sent_ < kCallsOfOne && left > 0))) return;
        connection_.reset();
        waiting_ = sent_ = 0;
        pending_.clear();
    }
    /// The methods of the calls that are not answered.
    std::string unanswered() const {
        std::string names;
        for (const auto& [number, name] : pending_) names += name + " ";
        return names;
    }
    /// Connections that the bus ended, for a message that it lets through to nobody.
    std::size_t ended() const { return ended_; }
    bool isDone() const { return !connection_; }
    const std::map<std::string, std::size_t>& answers() const { return answers_; }

private:
    bool ask(sd_bus_message* call) {
        const std::size_t number = ++last_;
        pending_[number] = sd_bus_message_get_member(call);
        const int asked = connection_->ask(call, [this, number](const std::string& error, sd_bus_message* answer) {
            --waiting_;
            pending_.erase(number);
            ++answers_[error];
            const char* job = nullptr;
            if (!error.empty() || sd_bus_message_has_signature(answer, "o") <= 0 || calls_.chance(5)) return;
            sd_bus_message_read(answer, "o", &job);
            ask(connection_->newCall(calls_.chance(90) ? "Result" : "Cancel", "org.tarnwell.Job1", job));
        });
        isOpen_ = isOpen_ && asked != -ENOTCONN && asked != -ECONNRESET;
        if (asked < 0) {
            pending_.erase(number);
            return false;
        }
        ++waiting_;
        ++sent_;
        return true;
    }

    const ServedProgram& service_;
    HostileCalls& calls_;
    std::unique_ptr<RawConnection> connection_;
    bool isOpen_ = true;
    std::size_t last_ = 0;
    std::map<std::size_t, std::string> pending_;  ///< method by the call's number
    std::size_t waiting_ = 0, sent_ = 0, ended_ = 0;
    std::map<std::string, std::size_t> answers_;
};

HostileCalls::Known whatIsThere(const ServedProgram& service) {
    HostileCalls::Known known;
    const auto client = service.connect();
    for (const char* name : {"Letter.txt", "Names/two\nlines.txt"}) {
        const auto identifier = client->identifiersAtPaths({service.document(name)}, session::PathUse::lookUp).at(0);
        known.paths.push_back(service.document(name));
        if (identifier) known.victims.push_back(*identifier);
    }
    const auto names = client->identifiersAtPaths({service.document("Names")}, session::PathUse::lookUp).at(0);
    for (int i = 0; names && i < 50; ++i) {
        const auto made = client->makeFolder("victim " + std::to_string(i), *names);
        if (made) known.victims.push_back(made->identifier);
    }
    const auto folder = client->identifiersAtPaths({service.document("Many")}, session::PathUse::lookUp).at(0);
    if (const auto page = client->enumerate(*folder, std::nullopt); page && page->next)
        known.tokens.push_back(*page->next);
    for (const char* container : {"RootContainer", "WorkingSetContainer"}) {
        if (const auto anchor = client->currentAnchor(container); anchor && *anchor) known.tokens.push_back(**anchor);
    }
    return known;
}

}  // namespace

namespace {

/// Sends so many, from all of them by turns, and waits for every answer.
void attack(const ServedProgram& service, std::deque<Attacker>& attackers, std::size_t messages) {
    std::size_t left = messages;
    auto lastAnswer = std::chrono::steady_clock::now();
    for (std::size_t done = 0; done < attackers.size() && service.isRunning();) {
        const std::size_t leftBefore = left;
        done = 0;
        for (auto& attacker : attackers) {
            attacker.step(left);
            if (left == 0 && attacker.isDone()) ++done;
        }
        const auto now = std::chrono::steady_clock::now();
        if (left != leftBefore) {
            lastAnswer = now;
            continue;
        }
        std::string unanswered;
        for (const auto& attacker : attackers) unanswered += attacker.unanswered();
        ASSERT_LT(now - lastAnswer, kLongestAnswer * kTimeFactor) << "not answered: " << unanswered;
        ::usleep(500);
    }
    EXPECT_TRUE(service.isRunning()) << service.complaints();
}

}  // namespace

void hostileMessages(std::size_t messages, std::uint64_t seed) {
    const ServedProgram service;
    auto known = whatIsThere(service);
    ASSERT_GE(known.victims.size(), 51U);
    ASSERT_EQ(known.tokens.size(), 3U);
    const Footprint before = service.footprint();
    HostileCalls calls(seed, std::move(known));
    std::deque<Attacker> attackers;
    for (std::size_t i = 0; i < kClients; ++i) attackers.emplace_back(service, calls);
    {
        HonestClient honest(service);
        attack(service, attackers, messages / 2);
        const auto isBack = [&] { return service.footprint().descriptors <= before.descriptors; };
        std::size_t firstKiB = service.footprint().residentKiB;
        attack(service, attackers, messages - messages / 2);
        EXPECT_EQ(honest.verdict(), "");
        std::printf("the service had %zu KiB, %zu after one half of the messages\n", before.residentKiB, firstKiB);
        EXPECT_TRUE(within(std::chrono::seconds(20), isBack)) << before.descriptors << " descriptors before, now:\n"
                                                              << service.descriptors();
        // Some of it is given back after a moment.
        const auto hasNotGrown = [&] { return service.footprint().residentKiB <= firstKiB + kSlackKiB; };
        EXPECT_TRUE(kIsSanitized || within(std::chrono::seconds(10), hasNotGrown));
        std::printf("and %zu KiB after all of them\n", service.footprint().residentKiB);
    }
    std::map<std::string, std::size_t> answers;
    std::size_t ended = 0;
    for (const auto& attacker : attackers) {
        ended += attacker.ended();
        for (const auto& [error, count] : attacker.answers()) answers[error] += count;
    }
    for (const auto& [error, count] : answers) {
        std::printf("%8zu %s\n", count, error.empty() ? "answers" : error.c_str());
        // These would come from the bus, for a service that went, and from the timeout.
        EXPECT_NE(error, "org.freedesktop.DBus.Error.NoReply");
        EXPECT_NE(error, "org.freedesktop.DBus.Error.Timeout");
        EXPECT_NE(error, "org.freedesktop.DBus.Error.ServiceUnknown");
    }
    // Many of them are understood, or nothing would have been tried.
    EXPECT_GT(answers[""], messages / 20);
    EXPECT_GT(answers.size(), 8U);
    // The bus lets some messages through to nobody, and ends the connection.
    EXPECT_LT(ended, messages / 100);
}

}  // namespace tarnwell::load
