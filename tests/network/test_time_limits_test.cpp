// The test-only ceilings on the idle time-out and the retry delay: they
// lower a wait, never raise it, and anything but a plain number of
// milliseconds from 1 to 60000 leaves the waits as they are.

#include "network/test_time_limits.h"

#include <gtest/gtest.h>

#include "support/scoped_environment.h"

namespace symlift::network {
namespace {

using namespace std::chrono_literals;
using symlift::testing::ScopedEnvironment;

TEST(TestTimeLimitsTest, OnlyPlainMillisecondsUpToAMinuteCount) {
  using Case = std::pair<std::optional<std::string>, std::optional<std::chrono::milliseconds>>;
  for (const auto& [text, expected] : std::vector<Case>{
           {std::nullopt, std::nullopt}, {"", std::nullopt}, {"0", std::nullopt}, {"-5", std::nullopt},
           {"abc", std::nullopt}, {"400ms", std::nullopt}, {" 400", std::nullopt}, {"60001", std::nullopt},
           {"99999999999999999999999", std::nullopt}, {"1", 1ms}, {"400", 400ms}, {"60000", 60000ms}}) {
    ScopedEnvironment set(kTestIdleTimeoutVariable, text);
    EXPECT_EQ(testTimeCeiling(kTestIdleTimeoutVariable), expected) << (text ? *text : "(unset)");
  }
}

TEST(TestTimeLimitsTest, CeilingsLowerButNeverRaise) {
  ScopedEnvironment idle(kTestIdleTimeoutVariable, "400"), delay(kTestMaximumRetryDelayVariable, "20");
  EXPECT_EQ(idleTimeoutWithTestCeiling(60000ms), 400ms);
  EXPECT_EQ(idleTimeoutWithTestCeiling(100ms), 100ms);
  EXPECT_EQ(retryDelayWithTestCeiling(std::chrono::nanoseconds(2s)), std::chrono::nanoseconds(20ms));
  EXPECT_EQ(retryDelayWithTestCeiling(std::chrono::nanoseconds(5ms)), std::chrono::nanoseconds(5ms));
  ScopedEnvironment ignored(kTestMaximumRetryDelayVariable, "3600000");  // beyond the minute
  EXPECT_EQ(retryDelayWithTestCeiling(std::chrono::nanoseconds(1024s)), std::chrono::nanoseconds(1024s));
}

}  // namespace
}  // namespace symlift::network
