#include <gtest/gtest.h>

#include <deque>
#include <map>

#include "buildenv/build_environment.h"

namespace symlift::buildenv {
namespace {

// Records the sleeps and exits a wait asks for instead of doing them.
struct FakeClock {
  int sleeps = 0;
  std::vector<int> exits;
  WaitHooks hooks() {
    return WaitHooks{[this] { ++sleeps; }, [this](int status) { exits.push_back(status); }};
  }
};

TEST(WaitUntil, TruePredicateReturnsWithoutSleeping) {
  FakeClock clock;
  int checks = 0;
  EXPECT_TRUE(waitUntil(30, [&] { return ++checks > 0; }, clock.hooks()));
  EXPECT_EQ(checks, 1);
  EXPECT_EQ(clock.sleeps, 0);
  EXPECT_TRUE(clock.exits.empty());
}

TEST(WaitUntil, ZeroTimeoutChecksOnceThenExits) {
  FakeClock clock;
  int checks = 0;
  EXPECT_FALSE(waitUntil(0, [&] { ++checks; return false; }, clock.hooks()));
  EXPECT_EQ(checks, 1);
  EXPECT_EQ(clock.sleeps, 0);
  EXPECT_EQ(clock.exits, std::vector<int>{1});
}

TEST(WaitUntil, NegativeTimeoutBehavesAsZero) {
  FakeClock clock;
  int checks = 0;
  EXPECT_FALSE(waitUntil(-5, [&] { ++checks; return false; }, clock.hooks()));
  EXPECT_EQ(checks, 1);
  EXPECT_EQ(clock.sleeps, 0);
  EXPECT_EQ(clock.exits, std::vector<int>{1});
}

TEST(WaitUntil, TimeoutGivesThatManyMoreChecksOneSecondApart) {
  FakeClock clock;
  int checks = 0;
  EXPECT_FALSE(waitUntil(30, [&] { ++checks; return false; }, clock.hooks()));
  EXPECT_EQ(checks, 31);
  EXPECT_EQ(clock.sleeps, 30);
  EXPECT_EQ(clock.exits, std::vector<int>{1});
}

TEST(WaitUntil, PredicateTurningTrueOnTheLastRoundStillPasses) {
  FakeClock clock;
  int checks = 0;
  EXPECT_TRUE(waitUntil(3, [&] { return ++checks == 4; }, clock.hooks()));
  EXPECT_EQ(clock.sleeps, 3);
  EXPECT_TRUE(clock.exits.empty());
}

// Sizes handed out in order per path; the last one repeats.
struct FakeSizes {
  std::map<std::string, std::deque<std::int64_t>> readings;
  std::vector<std::string> asked;
  std::int64_t operator()(const std::string& path) {
    asked.push_back(path);
    auto& queue = readings[path];
    if (queue.empty()) return 0;
    std::int64_t value = queue.front();
    if (queue.size() > 1) queue.pop_front();
    return value;
  }
};

const std::string kDSYM = "/b/App.app.dSYM";
const std::string kDWARF = "/b/App.app.dSYM/Contents/Resources/DWARF";

TEST(WaitForDSYM, StableSizeAfterTwoEqualReadings) {
  FakeClock clock;
  FakeSizes sizes;
  // Non-zero check, then stability: 96 (differs from 0), 128, 160, 160.
  sizes.readings[kDWARF] = {96, 96, 128, 160, 160};
  EXPECT_TRUE(waitForDSYM({}, kDSYM, clock.hooks(), std::ref(sizes)));
  EXPECT_EQ(sizes.asked.size(), 5u);
  EXPECT_EQ(clock.sleeps, 3);
  EXPECT_TRUE(clock.exits.empty());
}

TEST(WaitForDSYM, StabilityReadingOfZeroPassesAtOnce) {
  FakeClock clock;
  FakeSizes sizes;
  sizes.readings[kDWARF] = {4096, 0};
  EXPECT_TRUE(waitForDSYM({}, kDSYM, clock.hooks(), std::ref(sizes)));
  EXPECT_EQ(sizes.asked.size(), 2u);
  EXPECT_EQ(clock.sleeps, 0);
}

TEST(WaitForDSYM, EmptyDWARFFolderGivesUpAfterThirtySeconds) {
  FakeClock clock;
  FakeSizes sizes;
  EXPECT_FALSE(waitForDSYM({}, kDSYM, clock.hooks(), std::ref(sizes)));
  EXPECT_EQ(clock.sleeps, 30);
  EXPECT_EQ(clock.exits, std::vector<int>{1});
  EXPECT_EQ(sizes.asked, std::vector<std::string>(31, kDWARF));
}

TEST(WaitForDSYM, DebugDylibIsWaitedForOnlyWhenEnabled) {
  const std::string dylib = kDWARF + "/App.debug.dylib";
  Environment environment{{"ENABLE_DEBUG_DYLIB", "YES"}, {"EXECUTABLE_NAME", "App"}};
  {
    FakeClock clock;
    FakeSizes sizes;
    sizes.readings[kDWARF] = {128};
    sizes.readings[dylib] = {0, 0, 2048};
    EXPECT_TRUE(waitForDSYM(environment, kDSYM, clock.hooks(), std::ref(sizes)));
    EXPECT_EQ(sizes.asked, (std::vector<std::string>{kDWARF, dylib, dylib, dylib, kDWARF, kDWARF}));
  }
  {
    FakeClock clock;
    FakeSizes sizes;
    sizes.readings[kDWARF] = {128};
    EXPECT_FALSE(waitForDSYM(environment, kDSYM, clock.hooks(), std::ref(sizes)));
    EXPECT_EQ(clock.exits, std::vector<int>{1});
    // Never got as far as the stability wait.
    EXPECT_EQ(sizes.asked.back(), dylib);
  }
  for (const char* value : {"yes", "NO", ""}) {
    FakeClock clock;
    FakeSizes sizes;
    sizes.readings[kDWARF] = {128};
    environment["ENABLE_DEBUG_DYLIB"] = value;
    EXPECT_TRUE(waitForDSYM(environment, kDSYM, clock.hooks(), std::ref(sizes)));
    EXPECT_EQ(sizes.asked, (std::vector<std::string>{kDWARF, kDWARF, kDWARF})) << value;
  }
}

}  // namespace
}  // namespace symlift::buildenv
