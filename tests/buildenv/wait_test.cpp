#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <map>

#include "buildenv/build_environment.h"
#include "support/test_support.h"

namespace symlift::buildenv {
namespace {

// Counts the sleeps a wait asks for instead of doing them.
struct FakeClock {
  int sleeps = 0;
  WaitHooks hooks() {
    return WaitHooks{[this] { ++sleeps; }};
  }
};

TEST(WaitUntil, FirstCheckThenOneCheckPerSecondThenGiveUp) {
  struct Case {
    std::int64_t timeout;
    int trueAtCheck;  // 0: never
    int checks, sleeps;
    bool gaveUp;
  };
  const Case cases[] = {
      {30, 1, 1, 0, false},  {0, 0, 1, 0, true},   {-5, 0, 1, 0, true},
      {30, 0, 31, 30, true}, {3, 4, 4, 3, false},  // holds on the very last round
      {3, 5, 4, 3, true},
  };
  for (const auto& c : cases) {
    FakeClock clock;
    int checks = 0;
    bool held = waitUntil(c.timeout, [&] { return ++checks == c.trueAtCheck; }, clock.hooks());
    SCOPED_TRACE(::testing::Message() << "timeout " << c.timeout << ", true at " << c.trueAtCheck);
    EXPECT_EQ(held, !c.gaveUp);
    EXPECT_EQ(checks, c.checks);
    EXPECT_EQ(clock.sleeps, c.sleeps);
  }
}

// Sizes handed out in order per path (the last one repeats; none given: 0).
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
const std::string kDylib = kDWARF + "/App.debug.dylib";

TEST(WaitForDSYM, StabilityNeedsTwoEqualReadingsOrAFirstZero) {
  FakeClock clock;
  FakeSizes sizes;
  sizes.readings[kDWARF] = {96, 96, 128, 160, 160};  // non-zero check, then 96 ≠ 0, 128, 160 = 160
  EXPECT_TRUE(waitForDSYM({}, kDSYM, clock.hooks(), std::ref(sizes)));
  EXPECT_EQ(sizes.asked.size(), 5u);
  EXPECT_EQ(clock.sleeps, 3);

  FakeClock quick;
  FakeSizes zero;
  zero.readings[kDWARF] = {4096, 0};
  EXPECT_TRUE(waitForDSYM({}, kDSYM, quick.hooks(), std::ref(zero)));
  EXPECT_EQ(zero.asked.size(), 2u);
  EXPECT_EQ(quick.sleeps, 0);
}

TEST(WaitForDSYM, EmptyDWARFFolderGivesUpAfterThirtySeconds) {
  FakeClock clock;
  FakeSizes sizes;
  EXPECT_FALSE(waitForDSYM({}, kDSYM, clock.hooks(), std::ref(sizes)));
  EXPECT_EQ(sizes.asked, std::vector<std::string>(31, kDWARF));
}

TEST(WaitForDSYM, DebugDylibIsWaitedForOnlyWhenEnabled) {
  Environment environment{{"ENABLE_DEBUG_DYLIB", "YES"}, {"EXECUTABLE_NAME", "App"}};
  FakeClock clock;
  FakeSizes sizes;
  sizes.readings[kDWARF] = {128};
  sizes.readings[kDylib] = {0, 0, 2048};
  EXPECT_TRUE(waitForDSYM(environment, kDSYM, clock.hooks(), std::ref(sizes)));
  EXPECT_EQ(sizes.asked, (std::vector<std::string>{kDWARF, kDylib, kDylib, kDylib, kDWARF, kDWARF}));

  FakeClock stuck;
  FakeSizes noDylib;
  noDylib.readings[kDWARF] = {128};
  EXPECT_FALSE(waitForDSYM(environment, kDSYM, stuck.hooks(), std::ref(noDylib)));
  EXPECT_EQ(noDylib.asked.back(), kDylib);  // never reached the stability wait

  for (const char* value : {"yes", "NO"}) {
    FakeClock other;
    FakeSizes dwarfOnly;
    dwarfOnly.readings[kDWARF] = {128};
    environment["ENABLE_DEBUG_DYLIB"] = value;
    EXPECT_TRUE(waitForDSYM(environment, kDSYM, other.hooks(), std::ref(dwarfOnly)));
    EXPECT_EQ(dwarfOnly.asked, std::vector<std::string>(3, kDWARF)) << value;
  }
}

TEST(WaitForDSYM, RealClockAndFileSystem) {
  // A settled dSYM passes after one stability round.
  symlift::testing::TempDir dir;
  dir.write("A.dSYM/Contents/Resources/DWARF/A", "dwarf");
  auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(waitForDSYM({}, dir.str() + "/A.dSYM"));
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GE(seconds, 0.9);
  EXPECT_LT(seconds, 2.0);
}

}  // namespace
}  // namespace symlift::buildenv
