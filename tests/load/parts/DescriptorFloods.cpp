#include <fcntl.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <thread>

#include "platform/base/Descriptor.h"
#include "tests/load/parts/HonestClient.h"
#include "tests/load/parts/RawConnection.h"
#include "tests/load/parts/Scenarios.h"

namespace tarnwell::load {
namespace {

/// Of the service at a time, beside those that it has at rest: some for each client, for what is under way.
constexpr std::size_t kMostMore = 300;
/// What the bus keeps for a client that does not take it.
constexpr std::uint32_t kMostKept = 128;
/// The bus takes no more with one message.
constexpr int kAttached = 16;
/// So many calls are sent before there is a moment for answers.
constexpr std::size_t kWave = 32;

/// A search among whose options are descriptors, which no option is.
sd_bus_message* searchWith(const RawConnection& client, int descriptor) {
    sd_bus_message* call = client.newCall("Search");
    sd_bus_message_append_array(call, 'y', "Letter", 6);
    sd_bus_message_open_container(call, 'a', "{sv}");
    for (int i = 0; i < kAttached; ++i) {
        sd_bus_message_append(call, "{sv}", ("x" + std::to_string(i)).c_str(), "h", descriptor);
    }
    sd_bus_message_close_container(call);
    sd_bus_message_append(call, "t", UINT64_C(1));
    return call;
}

}  // namespace

void descriptorFloods(std::size_t calls) {
    if (!allowDescriptors(16'384)) GTEST_SKIP() << "this process may not have 16,384 descriptors";
    const ServedProgram service;
    const auto client = service.connect();
    ASSERT_TRUE(client);
    const auto letter = client->identifiersAtPaths({service.document("Letter.txt")}, session::PathUse::lookUp).at(0);
    ASSERT_TRUE(letter) << describe(letter.error());
    ASSERT_TRUE(client->open(*letter, session::Session::Access::read));
    const std::size_t before = service.footprint().descriptors;

    std::size_t most = 0;
    std::uint32_t kept = 0;
    {
        HonestClient honest(service);
        const RawConnection taker(service.address()), giver(service.address()), asker(service.address());
        const Descriptor null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        const std::string takerName = taker.name();
        // Its answers are read by nobody before it goes.
        for (std::size_t i = 0; i < calls && service.isRunning(); ++i) {
            sd_bus_message* open = taker.newCall("Open");
            sd_bus_message_append(open, "sb", letter->c_str(), 0);
            taker.send(open);
            if (i % 8 == 0) giver.send(searchWith(giver, null.get()));
            if (i % kWave != 0) continue;
            ::usleep(5000);
            most = std::max(most, service.footprint().descriptors);
            kept = std::max(kept, asker.statisticsOf(takerName)["OutgoingFDs"]);
        }
        EXPECT_TRUE(service.isRunning()) << service.complaints();
        EXPECT_EQ(honest.verdict(), "");
    }
    std::printf("%zu descriptors at rest, %zu at most; the bus kept %u\n", before, most, kept);
    EXPECT_LE(most, before + kMostMore);
    EXPECT_LE(kept, kMostKept);
    EXPECT_TRUE(within(std::chrono::seconds(20), [&] { return service.footprint().descriptors <= before; }))
        << service.footprint().descriptors << " descriptors instead of " << before << ":\n"
        << service.descriptors();
}

}  // namespace tarnwell::load
