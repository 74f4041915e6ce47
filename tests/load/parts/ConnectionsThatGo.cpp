#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <vector>

#include "tests/load/parts/HonestClient.h"
#include "tests/load/parts/RawConnection.h"
#include "tests/load/parts/Scenarios.h"

namespace tarnwell::load {
namespace {

/// Of the service, when they have gone. What is left in use lies here and there in each thread's part of the heap.
constexpr std::size_t kSlackKiB = 12 * 1024;

/// What each of the connections does before it goes.
class Crowd {
public:
    Crowd(const ServedProgram& service, std::string folder, std::size_t size) : folder_(std::move(folder)) {
        for (std::size_t i = 0; i < size; ++i) members_.push_back(std::make_unique<Member>(service.address()));
    }

    void ask() {
        for (std::size_t i = 0; i < members_.size(); ++i) {
            Member& member = *members_[i];
            switch (i % 6) {
                case 0:  // goes in the middle of a listing, when the first page is there
                case 1:  // the same with the second one asked for
                    listFrom(member, {}, i % 6 == 1 ? 2 : 1);
                    break;
                case 2:  // goes at once, with requests that nobody waits for
                    for (int request = 0; request < 5; ++request) member.connection.send(pageCall(member, {}));
                    break;
                case 3:  // watches and follows
                    for (const char* container : {"RootContainer", "WorkingSetContainer", folder_.c_str()}) {
                        expectAnswer(member, callWith(member, "Watch", container));
                        expectAnswer(member, callWith(member, "CurrentAnchor", container));
                    }
                    break;
                case 4: {  // goes with a job whose result nobody fetches
                    sd_bus_message* trash = member.connection.newCall("Trash");
                    sd_bus_message_append(trash, "as", 2, "did=4000000000", "fid=1");
                    expectAnswer(member, trash);
                    break;
                }
                default:  // lists everything
                    listFrom(member, {}, 100);
            }
        }
    }

    /// True when all that was waited for is answered.
    bool read() {
        return std::ranges::count_if(members_, [](const auto& member) {
                   EXPECT_TRUE(member->connection.read());
                   return member->waiting > 0;
               }) == 0;
    }

    std::size_t failures() const {
        std::size_t failures = 0;
        for (const auto& member : members_) failures += member->failures;
        return failures;
    }

private:
    struct Member {
        explicit Member(const std::string& address) : connection(address) {}
        RawConnection connection;
        std::size_t waiting = 0, failures = 0, listed = 0;
    };

    sd_bus_message* callWith(const Member& member, const char* method, const char* argument) const {
        sd_bus_message* call = member.connection.newCall(method);
        sd_bus_message_append(call, "s", argument);
        return call;
    }
    sd_bus_message* pageCall(const Member& member, const std::vector<std::uint8_t>& page) const {
        sd_bus_message* call = callWith(member, "Enumerate", folder_.c_str());
        sd_bus_message_append_array(call, 'y', page.data(), page.size());
        return call;
    }
    void expectAnswer(Member& member, sd_bus_message* call) {
        ++member.waiting;
        member.connection.ask(call, [&member](const std::string& error, sd_bus_message*) {
            --member.waiting;
            if (!error.empty()) ++member.failures;
        });
    }
    void listFrom(Member& member, const std::vector<std::uint8_t>& page, int pages) {
        ++member.waiting;
        member.connection.ask(pageCall(member, page),
                              [this, &member, pages](const std::string& error, sd_bus_message* answer) {
                                  --member.waiting;
                                  if (!error.empty()) {
                                      ++member.failures;
                                      return;
                                  }
                                  sd_bus_message_enter_container(answer, 'a', "a{sv}");
                                  while (sd_bus_message_skip(answer, "a{sv}") > 0) ++member.listed;
                                  sd_bus_message_exit_container(answer);
                                  const void* next = nullptr;
                                  std::size_t size = 0;
                                  sd_bus_message_read_array(answer, 'y', &next, &size);
                                  if (size == 0) {
                                      if (member.listed != tour::kManyEntries) ++member.failures;
                                      return;
                                  }
                                  const auto* bytes = static_cast<const std::uint8_t*>(next);
                                  if (pages == 1) return;
                                  if (pages == 2)
                                      return member.connection.send(pageCall(member, {bytes, bytes + size}));
                                  listFrom(member, {bytes, bytes + size}, pages - 1);
                              });
    }

    std::string folder_;
    std::vector<std::unique_ptr<Member>> members_;
};

}  // namespace

void connectionsThatGo(std::size_t connections, int rounds) {
    // The bus has one end of each, and inherits what is allowed.
    if (!allowDescriptors(connections * 2 + 500)) {
        GTEST_SKIP() << "this process may not have " << connections * 2 + 500 << " descriptors";
    }
    const ServedProgram service;
    std::string folder;
    {
        const auto client = service.connect();
        ASSERT_TRUE(client);
        const auto found = client->identifiersAtPaths({service.document("Many")}, session::PathUse::lookUp).at(0);
        ASSERT_TRUE(found) << describe(found.error());
        folder = *found;
        ASSERT_TRUE(client->enumerate(folder, std::nullopt));
        ASSERT_TRUE(client->watch("RootContainer", [] {}));
    }
    Footprint before = service.footprint();
    std::printf("before: %zu descriptors, %zu watches of the kernel, %zu threads, %zu KiB\n", before.descriptors,
                before.kernelWatches, before.threads, before.residentKiB);
    const auto isAsBefore = [&] {
        const Footprint now = service.footprint();
        return now.descriptors <= before.descriptors && now.kernelWatches <= before.kernelWatches &&
               now.threads <= before.threads;
    };
    for (int round = 0; round < rounds; ++round) {
        const auto begin = std::chrono::steady_clock::now();
        {
            Crowd crowd(service, folder, connections);
            crowd.ask();
            EXPECT_TRUE(within(std::chrono::seconds(60), [&] { return crowd.read(); }));
            EXPECT_EQ(crowd.failures(), 0U);
        }
        ASSERT_TRUE(service.isRunning()) << service.complaints();
        EXPECT_TRUE(within(std::chrono::seconds(20), isAsBefore)) << service.descriptors();
        const Footprint now = service.footprint();
        std::printf("round %d: %.1f s, %zu descriptors, %zu watches of the kernel, %zu threads, %zu KiB\n", round,
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count(), now.descriptors,
                    now.kernelWatches, now.threads, now.residentKiB);
        if (!kIsSanitized) {
            EXPECT_TRUE(within(std::chrono::seconds(20), [&] {
                return service.footprint().residentKiB <= before.residentKiB + kSlackKiB;
            })) << service.footprint().residentKiB;
        }
    }
    HonestClient honest(service);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_EQ(honest.verdict(), "");
}

}  // namespace tarnwell::load
