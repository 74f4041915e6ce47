#include <gtest/gtest.h>

#include "testing/LongRun.h"
#include "tests/load/parts/Scenarios.h"

/// All of what the program test_load has a little of: the built program as the service under load and attack.
namespace tarnwell::deep {
namespace {

using testing::chooseSeed;

TEST(ServiceLoad, AThousandConnectionsThatGoLeaveNothing) { load::connectionsThatGo(1000, 3); }

TEST(ServiceLoad, ClientsThatFloodItWithDescriptorsHurtNobody) { load::descriptorFloods(20'000); }

TEST(ServiceLoad, AClientThatReadsNothingHurtsNobody) { load::clientThatReadsNothing(std::chrono::seconds(60)); }

TEST(ServiceLoad, EveryHostileMessageIsAnswered) { load::hostileMessages(100'000, chooseSeed("EveryHostileMessage")); }

TEST(ServiceLoad, ABusyDayLeavesItAsItWas) { load::busyDays(load::kChangesOfABusyDay, chooseSeed("ABusyDay")); }

TEST(ServiceLoad, AKillOfTheServiceIsToldAndMended) { load::killedService(200, chooseSeed("AKillOfTheService")); }

}  // namespace
}  // namespace tarnwell::deep
