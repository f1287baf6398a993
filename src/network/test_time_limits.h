#pragma once
// Two environment variables that let the tests shorten the network layer's
// waits. They exist for the test suite only: a run cannot wait a minute for a
// silent server or half an hour for the back-off ladder of ten retries.
//
//   SYMLIFT_TEST_IDLE_TIMEOUT_MS   ceiling on every transfer's idle time-out
//   SYMLIFT_TEST_MAX_RETRY_DELAY_MS ceiling on every delay before a retry
//
// Each value is a whole number of milliseconds from 1 to 60000. They can only
// shorten a wait, never lengthen it or switch it off: the smaller of the
// ceiling and the normal value is used, and an empty, zero, negative,
// non-numeric or larger value is ignored.

#include <chrono>
#include <optional>

namespace symlift::network {

inline constexpr const char* kTestIdleTimeoutVariable = "SYMLIFT_TEST_IDLE_TIMEOUT_MS";
inline constexpr const char* kTestMaximumRetryDelayVariable = "SYMLIFT_TEST_MAX_RETRY_DELAY_MS";

// The ceiling a variable sets, read now; nothing when unset or unusable.
std::optional<std::chrono::milliseconds> testTimeCeiling(const char* variable);

// The time-out, lowered to the test ceiling when one is set.
std::chrono::milliseconds idleTimeoutWithTestCeiling(std::chrono::milliseconds timeout);
// The delay, lowered to the test ceiling when one is set.
std::chrono::nanoseconds retryDelayWithTestCeiling(std::chrono::nanoseconds delay);

}  // namespace symlift::network
