#include "hostframework/ObjectRuntime.h"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace tarnwell::hostframework {
namespace {

TEST(ObjectRuntime, PerformsWhatIsRegisteredUnderClassAndOperation) {
    ObjectRuntime runtime;
    runtime.registerOperation("Doubler", "perform",
                              [](const std::any& n) { return std::any(2 * std::any_cast<int>(n)); });
    runtime.registerOperation("Doubler", "name", [](const std::any&) { return std::any(std::string("doubler")); });
    EXPECT_EQ(std::any_cast<int>(runtime.perform("Doubler", "perform", 21).value()), 42);
    EXPECT_EQ(std::any_cast<std::string>(runtime.perform("Doubler", "name").value()), "doubler");
}

TEST(ObjectRuntime, GivesNothingForWhatIsNotRegistered) {
    ObjectRuntime runtime;
    runtime.registerOperation("Doubler", "perform", [](const std::any& n) { return n; });
    EXPECT_FALSE(runtime.perform("Doubler", "other"));
    EXPECT_FALSE(runtime.perform("Halver", "perform"));
}

TEST(ObjectRuntime, AnOperationThatReturnsNothingIsStillFound) {
    ObjectRuntime runtime;
    runtime.registerOperation("Quiet", "perform", [](const std::any&) { return std::any(); });
    auto result = runtime.perform("Quiet", "perform");
    ASSERT_TRUE(result);
    EXPECT_FALSE(result->has_value());
}

TEST(ObjectRuntime, RegisteringAgainReplaces) {
    ObjectRuntime runtime;
    runtime.registerOperation("A", "perform", [](const std::any&) { return std::any(1); });
    runtime.registerOperation("A", "perform", [](const std::any&) { return std::any(2); });
    EXPECT_EQ(std::any_cast<int>(runtime.perform("A", "perform").value()), 2);
}

TEST(ObjectRuntime, AnOperationMayPerformAndRegisterOthers) {
    ObjectRuntime runtime;
    runtime.registerOperation("Inner", "perform", [](const std::any&) { return std::any(5); });
    runtime.registerOperation("Outer", "perform", [&](const std::any&) {
        runtime.registerOperation("Outer", "perform", [](const std::any&) { return std::any(6); });
        return runtime.perform("Inner", "perform").value();
    });
    EXPECT_EQ(std::any_cast<int>(runtime.perform("Outer", "perform").value()), 5);
    EXPECT_EQ(std::any_cast<int>(runtime.perform("Outer", "perform").value()), 6);
}

TEST(ObjectRuntime, ManyThreadsMayUseIt) {
    ObjectRuntime runtime;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, name = "Class" + std::to_string(t), t] {
            for (int i = 0; i < 200; ++i) {
                runtime.registerOperation(name, "perform", [t](const std::any&) { return std::any(t); });
                EXPECT_EQ(std::any_cast<int>(runtime.perform(name, "perform").value()), t);
            }
        });
    for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace tarnwell::hostframework
