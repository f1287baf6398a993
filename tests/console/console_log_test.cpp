#include "console/console_log.h"
#include "support/error.h"

#include <gtest/gtest.h>

#include <sstream>
#include <thread>
#include <vector>

namespace symlift::console {
namespace {

// Restores the shared settings after each test.
class ConsoleLogTest : public ::testing::Test {
 protected:
  void TearDown() override {
    SYLLogging::sharedInstance().setLogLevel(kLogLevelInfo);
    SYLLogging::sharedInstance().setColorsEnabled(true);
  }
  template <typename F>
  std::string captured(F&& f) {
    ::testing::internal::CaptureStdout();
    f();
    std::fflush(stdout);
    return ::testing::internal::GetCapturedStdout();
  }
};

TEST_F(ConsoleLogTest, SharedInstanceStartsAtInfoWithColour) {
  EXPECT_EQ(SYLLogging::sharedInstance().logLevel(), 1u);
  EXPECT_TRUE(SYLLogging::sharedInstance().colorsEnabled());
}

TEST_F(ConsoleLogTest, WarningAndErrorCarryPrefixAndColourCoversBoth) {
  EXPECT_EQ(captured([] { SYLLogWarning("disk {} low", 3); }), "\x1b[33mwarning: disk 3 low\x1b[0m\n");
  EXPECT_EQ(captured([] { SYLLogError("bad"); }), "\x1b[31merror: bad\x1b[0m\n");
  SYLLogging::sharedInstance().setColorsEnabled(false);
  EXPECT_EQ(captured([] { SYLLogWarning("disk {} low", 3); }), "warning: disk 3 low\n");
  EXPECT_EQ(captured([] { SYLLogError("bad"); }), "error: bad\n");
}

TEST_F(ConsoleLogTest, EachHelperUsesItsOwnColour) {
  EXPECT_EQ(captured([] { SYLLogSuccess("ok"); }), "\x1b[32mok\x1b[0m\n");
  EXPECT_EQ(captured([] { SYLLogHighlight("hi"); }), "\x1b[1m\x1b[36mhi\x1b[0m\n");
  EXPECT_EQ(captured([] { SYLLogBold("b"); }), "\x1b[1mb\x1b[0m\n");
  // Info has an empty colour string, so it is never coloured.
  EXPECT_EQ(captured([] { SYLLogInfo("plain"); }), "plain\n");
}

TEST_F(ConsoleLogTest, DebugLinesOnlyAtLevelZero) {
  EXPECT_EQ(captured([] { SYLLogDebug("hidden"); }), "");
  SYLLogging::sharedInstance().setLogLevel(0);
  EXPECT_EQ(captured([] { SYLLogDebug("shown {}", "now"); }), "shown now\n");
}

TEST_F(ConsoleLogTest, LevelFilterAppliesToEveryHelper) {
  SYLLogging::sharedInstance().setLogLevel(3);
  EXPECT_EQ(captured([] {
              SYLLogInfo("i");
              SYLLogWarning("w");
              SYLLogError("e");
            }),
            "\x1b[31merror: e\x1b[0m\n");
}

TEST_F(ConsoleLogTest, OwnNewlineIsKeptAndOneMoreAdded) {
  EXPECT_EQ(captured([] { SYLLogInfo("two\nlines\n"); }), "two\nlines\n\n");
}

TEST_F(ConsoleLogTest, UnknownLevelHasNoPrefix) {
  EXPECT_EQ(SYLLogging::formatLine(7, "m", kColorRed, true), "\x1b[31mm\x1b[0m\n");
  EXPECT_EQ(SYLLogging::formatLine(7, "m", kColorRed, false), "m\n");
}

TEST_F(ConsoleLogTest, LogErrorWithPrefixIsUncolouredAndAddsUnderlyingError) {
  auto underlying = support::makeError("D", 4, {{support::kLocalizedDescriptionKey, "went wrong"}});
  std::string out = captured([&] { SYLLogging::logErrorWithPrefix("p", "dom", 1, underlying, "failed {}", 2); });
  EXPECT_EQ(out, "error: failed 2\n\x1b[31merror: Underlying error: " + underlying->description() + "\x1b[0m\n");
  EXPECT_EQ(captured([] { SYLLogging::logErrorWithPrefix("p", "dom", 1, nullptr, "alone"); }), "error: alone\n");
}

TEST_F(ConsoleLogTest, LinesFromManyThreadsNeverInterleave) {
  SYLLogging::sharedInstance().setColorsEnabled(false);
  std::string out = captured([] {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([t] {
        for (int i = 0; i < 200; ++i) SYLLogInfo("thread-{}-line-{}-{}", t, i, std::string(100, 'x'));
      });
    for (auto& th : threads) th.join();
  });
  std::istringstream lines(out);
  std::string line;
  int count = 0;
  while (std::getline(lines, line)) {
    ++count;
    EXPECT_EQ(line.rfind("thread-", 0), 0u) << line;
    EXPECT_EQ(line.size() - line.find_last_not_of('x') - 1, 100u) << line;
  }
  EXPECT_EQ(count, 800);
}

TEST(PrintableTest, ControlCharactersInOutsideTextAreEscaped) {
  const std::pair<std::string, std::string> cases[] = {
      {"/tmp/App.dSYM", "/tmp/App.dSYM"},
      {"a\nSuccessfully uploaded", "a\\nSuccessfully uploaded"},
      {"x\x1b[32my\rz\t", "x\\x1b[32my\\rz\\t"},
      {std::string("nul\0end", 7), "nul\\x00end"},
  };
  for (const auto& [text, shown] : cases) EXPECT_EQ(printable(text), shown);
  // A whole line keeps the program's own line feeds and tabs, never a
  // terminal control.
  EXPECT_EQ(SYLLogging::formatLine(kLogLevelInfo, "{\n\tu = a;\n}\x1b[2K\r", "", false), "{\n\tu = a;\n}\\x1b[2K\\r\n");
}

}  // namespace
}  // namespace symlift::console
