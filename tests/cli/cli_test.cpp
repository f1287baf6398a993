// The small parsers behind the driver: the symbolication version, the app
// identifier from a Lumo project file, and trimming.

#include <gtest/gtest.h>

#include <sys/stat.h>

#include "cli/app_id.h"
#include "cli/symbolication_version.h"
#include "support/captured_output.h"

namespace symlift::cli {
namespace {

using symlift::testing::TempDir;

TEST(CliTest, SymbolicationVersionIsTheDecimalPrefixOrZero) {
  const std::pair<std::optional<std::string>, float> rows[] = {
      {"64570.35.1", 64570.35f}, {" 2.25beta", 2.25f}, {"-1", -1.0f}, {".5", 0.5f}, {"1e2", 100.0f}, {"3e", 3.0f},
      {"0x10", 0.0f}, {"", 0.0f}, {"abc", 0.0f}, {".", 0.0f}, {"-", 0.0f}, {"inf", 0.0f}, {"nan", 0.0f},
      {"v2", 0.0f}, {std::nullopt, 0.0f},
  };
  for (const auto& [text, value] : rows)
    EXPECT_FLOAT_EQ(maxSymbolicationVersionFromText(text), value) << text.value_or("none");
}

// What a lookup gave, and what it printed.
using Outcome = std::pair<std::optional<std::string>, std::string>;
template <typename F>
Outcome outcome(F&& f) {
  Outcome result;
  result.second = symlift::testing::consoleOutput(console::kLogLevelInfo, [&] { result.first = f(); });
  return result;
}
Outcome failure(const std::string& message) { return {std::nullopt, "error: " + message + "\n"}; }

TEST(CliTest, LumoFilesThatGiveNoAppID) {
  TempDir dir;
  const std::string fifo = (dir.path() / "fifo.json").string();
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& path : {fifo, std::string("/dev/zero")})  // never read
    EXPECT_EQ(outcome([&] { return appIDFromLumoProject(path); }), failure("Unable to read file at path " + path));
  const std::pair<std::string, std::string> rows[] = {
      {"{\"OMVARA_APP_ID\": ", "Unable to create json from file at path "},
      {"", "Unable to create json from file at path "},
      {"{\"a\":" + std::string(300, '[') + std::string(300, ']') + "}", "Unable to create json from file at path "},
      {"{\"OMVARA_APP_ID\": 12}", "Unable to read valid app ID from path "},
      {"{\"omvara_app_id\": \"x\"}", "Unable to read valid app ID from path "},
  };
  for (const auto& [text, error] : rows) {
    const std::string path = dir.write("app.json", text).string();
    EXPECT_EQ(outcome([&] { return appIDFromLumoProject(path); }), failure(error + path)) << text;
  }
}

TEST(CliTest, TrimTakesWhiteSpaceAndLineBreaksAtBothEndsOnly) {
  const std::pair<std::string, std::string> rows[] = {
      {" \t\r\n\v\fa b\n\t ", "a b"},
      // No-break, ideographic and line-separator spaces count; a zero-width space does not.
      {"\xC2\xA0\xE3\x80\x80id\xE2\x80\xA8\xC2\x85", "id"},
      {"id\xE2\x80\x8B", "id\xE2\x80\x8B"},
      {"caf\xC3\xA9 ", "caf\xC3\xA9"},  // a multi-byte letter at the end is not a space
      {" \n ", ""},
  };
  for (const auto& [text, trimmed] : rows) EXPECT_EQ(trimWhitespaceAndNewlines(text), trimmed);
}

}  // namespace
}  // namespace symlift::cli
