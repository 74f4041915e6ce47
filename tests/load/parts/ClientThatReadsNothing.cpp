#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>

#include "testing/TemporaryDirectory.h"
#include "tests/load/parts/HonestClient.h"
#include "tests/load/parts/RawConnection.h"
#include "tests/load/parts/Scenarios.h"

namespace tarnwell::load {
namespace {

/// What the bus may have for a client that does not take it: what the service lets it have, and one wave of pages.
constexpr std::uint32_t kMostKept = 16 << 20;
/// By this much the service may become larger, beside what a client's requests need for themselves.
constexpr std::size_t kSlackKiB = 24 * 1024;
/// One that is behind is refused at least so many requests before nothing is sent to it any more.
constexpr std::size_t kRefusals = 20'000;
/// No more than a client may ask at a time, so that it is not refused and the answers are large.
constexpr std::size_t kWave = 32;

}  // namespace

void clientThatReadsNothing(std::chrono::seconds duration) {
    const ServedProgram service;
    const auto client = service.connect();
    ASSERT_TRUE(client);
    const auto folder = client->identifiersAtPaths({service.document("Many")}, session::PathUse::lookUp).at(0);
    ASSERT_TRUE(folder) << describe(folder.error());
    // What every service has sooner or later.
    for (int i = 0; i < 50; ++i) ASSERT_TRUE(client->enumerate(*folder, std::nullopt));
    const Footprint before = service.footprint();

    HonestClient honest(service);
    RawConnection silent(service.address());
    const RawConnection asker(service.address());
    const std::string name = silent.name();
    std::size_t asked = 0, answered = 0, residentKiB = 0;
    const auto count = [&](const std::string&, sd_bus_message*) { ++answered; };
    for (const char* container : {"RootContainer", "WorkingSetContainer", "AllDirectoriesContainer"}) {
        sd_bus_message* watch = silent.newCall("Watch");
        sd_bus_message_append(watch, "s", container);
        silent.ask(watch, count);
        ++asked;
    }
    std::uint32_t kept = 0;
    const auto end = std::chrono::steady_clock::now() + duration;
    for (int wave = 0; std::chrono::steady_clock::now() < end && service.isRunning(); ++wave) {
        for (std::size_t i = 0; i < kWave; ++i) {
            sd_bus_message* page = silent.newCall("Enumerate");
            sd_bus_message_append(page, "s", folder->c_str());
            sd_bus_message_append_array(page, 'y', nullptr, 0);
            silent.ask(page, count);
            ++asked;
        }
        sd_bus_flush(silent.get());
        // Something to signal.
        testing::writeFile(service.document("changing " + std::to_string(wave % 50) + ".txt"), std::to_string(wave));
        ::usleep(20'000);
        kept = std::max(kept, asker.statisticsOf(name)["OutgoingBytes"]);
        residentKiB = std::max(residentKiB, service.footprint().residentKiB);
    }
    EXPECT_TRUE(service.isRunning()) << service.complaints();
    EXPECT_EQ(honest.verdict(), "");
    std::printf("%zu requests; the bus kept %u KiB; the service had %zu KiB, and %zu at most\n", asked, kept / 1024,
                before.residentKiB, residentKiB);
    EXPECT_LE(kept, kMostKept);
    if (!kIsSanitized) {
        EXPECT_LE(residentKiB, before.residentKiB + kSlackKiB);
    }
    // When it reads at last, everything that it asked is answered, be it by a refusal; but for what it asked after so
    // many refusals that it was cut off.
    const std::size_t expected = std::min(asked, kRefusals);
    EXPECT_TRUE(within(std::chrono::seconds(60),
                       [&] {
                           EXPECT_TRUE(silent.read());
                           return answered >= expected;
                       }))
        << answered << " of " << asked << " were answered";
    // And then it is a client as any other.
    EXPECT_TRUE(within(std::chrono::seconds(60), [&] { return silent.call(silent.newCall("Info")).empty(); }));
}

}  // namespace tarnwell::load
