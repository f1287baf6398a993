// The test-only ceilings on the idle time-out and the retry delay: anything
// but a plain number of milliseconds from 1 to 60000 is no ceiling. That a
// ceiling lowers a wait and never raises it shows through the binary
// (NetworkFaultsTest).

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

}  // namespace
}  // namespace symlift::network
