#include "host/Signals.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <future>
#include <thread>

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

TEST(Wakeup, WakesForEachSignalOnceAndForAnInterrupt) {
    const std::string problem = testing::inChild([]() -> std::string {
        const InterruptGuard guard;
        const Wakeup wakeup;
        wakeup.signal();
        wakeup.signal();
        if (wakeup.wait(guard) != Wakeup::Woken::bySignal) return "the signal was not heard";
        std::atomic<bool> isSignalled{false};
        std::thread later([&] {
            isSignalled = true;
            wakeup.signal();
        });
        const auto second = wakeup.wait(guard);
        const bool wasSignalled = isSignalled;
        later.join();
        if (second != Wakeup::Woken::bySignal) return "the later signal was not heard";
        if (!wasSignalled) return "a signal woke twice";
        ::kill(::getpid(), SIGTERM);
        return wakeup.wait(guard) == Wakeup::Woken::byInterrupt ? "" : "the interrupt was not heard";
    });
    EXPECT_EQ(problem, "");
}

}  // namespace
}  // namespace tarnwell::host
