#include "network/test_time_limits.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <string_view>

namespace symlift::network {

namespace {
constexpr long long kLargestCeilingMilliseconds = 60000;
}  // namespace

std::optional<std::chrono::milliseconds> testTimeCeiling(const char* variable) {
  const char* value = std::getenv(variable);
  if (!value) return std::nullopt;
  std::string_view text(value);
  long long milliseconds = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), milliseconds);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  if (milliseconds < 1 || milliseconds > kLargestCeilingMilliseconds) return std::nullopt;
  return std::chrono::milliseconds(milliseconds);
}

std::chrono::milliseconds idleTimeoutWithTestCeiling(std::chrono::milliseconds timeout) {
  auto ceiling = testTimeCeiling(kTestIdleTimeoutVariable);
  return ceiling ? std::min(timeout, *ceiling) : timeout;
}

std::chrono::nanoseconds retryDelayWithTestCeiling(std::chrono::nanoseconds delay) {
  auto ceiling = testTimeCeiling(kTestMaximumRetryDelayVariable);
  if (!ceiling) return delay;
  return std::min(delay, std::chrono::duration_cast<std::chrono::nanoseconds>(*ceiling));
}

}  // namespace symlift::network
