#include <gtest/gtest.h>

#include "testing/LongRun.h"
#include "tests/load/parts/Scenarios.h"

/// The built program as the service under load and attack, in amounts for which one can wait. The deep checks have more
/// of it.
namespace tarnwell::load {
namespace {

TEST(LoadTest, AThousandConnectionsThatGoLeaveNothing) { connectionsThatGo(1000, 1); }

TEST(LoadTest, ClientsThatFloodItWithDescriptorsHurtNobody) { descriptorFloods(2000); }

TEST(LoadTest, AClientThatReadsNothingHurtsNobody) { clientThatReadsNothing(std::chrono::seconds(5)); }

TEST(LoadTest, EveryHostileMessageIsAnswered) { hostileMessages(5000, testing::chooseSeed("EveryHostileMessage")); }

TEST(LoadTest, ABusyDayLeavesItAsItWas) { busyDays(kChangesOfABusyDay / 10, testing::chooseSeed("ABusyDay")); }

TEST(LoadTest, AKillOfTheServiceIsToldAndMended) { killedService(8, testing::chooseSeed("AKillOfTheService")); }

}  // namespace
}  // namespace tarnwell::load
