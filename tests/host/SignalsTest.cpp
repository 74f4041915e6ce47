#include "host/Signals.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <future>

#include "testing/InChild.h"

namespace tarnwell::host {
namespace {

/// In a process of its own, whose signals are nobody else's.
TEST(InterruptWatch, TellsOfAnInterruptOnceAndOfNoneWhereThereWasNone) {
    const std::string problem = testing::inChild([]() -> std::string {
        const InterruptGuard guard;
        int told = 0;
        {
            const InterruptWatch quiet(guard, [&] { ++told; });
        }
        if (told != 0 || guard.wasInterrupted()) return "told without an interrupt";
        std::promise<void> heard;
        {
            const InterruptWatch watch(guard, [&] { heard.set_value(); });
            ::kill(::getpid(), SIGINT);
            heard.get_future().wait();
        }
        return guard.wasInterrupted() ? "" : "the guard forgot the interrupt";
    });
    EXPECT_EQ(problem, "");
}

}  // namespace
}  // namespace tarnwell::host
