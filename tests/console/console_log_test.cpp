// The console's lines: escaping of outside text, and whole lines from many
// threads. (Each helper's text and colour shows in the binary's exact output
// and in PipelineUseTest's terminal run.)

#include "console/console_log.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <thread>
#include <vector>

#include "support/captured_output.h"

namespace symlift::console {
namespace {

using symlift::testing::consoleOutput;

TEST(ConsoleLogTest, ControlCharactersInOutsideTextAreEscaped) {
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

TEST(ConsoleLogTest, LinesFromManyThreadsNeverInterleave) {
  std::string out = consoleOutput(kLogLevelInfo, [] {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([t] {
        for (int i = 0; i < 200; ++i) SYLLogInfo("thread-{}-line-{}-{}", t, i, std::string(100, 'x'));
      });
    for (auto& th : threads) th.join();
  });
  std::istringstream lines(out);
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count)
    EXPECT_TRUE(line.starts_with("thread-") && line.ends_with("-" + std::string(100, 'x'))) << line;
  EXPECT_EQ(count, 800);
}

}  // namespace
}  // namespace symlift::console
