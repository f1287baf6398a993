// The policies read from an Xcode build's environment: platform, dSYM paths,
// the completeness check, the wait for the dSYM, CI detection and the process
// ancestry it looks at.

#include "buildenv/build_environment.h"
#include "buildenv/process_ancestry.h"

#include <gtest/gtest.h>

#include <deque>
#include <filesystem>

#include "console/console_log.h"
#include "support/captured_output.h"
#include "support/scoped_environment.h"

namespace symlift::buildenv {
namespace {

using symlift::testing::consoleOutput;
using symlift::testing::TempDir;
using Paths = std::vector<std::string>;

// The framework's dSYM only for Lumo builds whose configuration does not
// contain "Debug"; the obfuscation warning for exactly "true", Lumo or not;
// the split debug information line only in Lumo mode, set even empty.
TEST(BuildEnvironmentTest, DSYMPathsAndTheirNotices) {
  const std::string app = "/p/Release-iphoneos/R.app.dSYM", framework = "/p/Release-iphoneos/App.framework.dSYM";
  const std::string warning =
      "warning: Lumo build with '--obfuscate' enabled. To view deobfuscated stack traces, upgrade to Lumo 3.12.0+ "
      "or upload dSYMs manually using the Pelloran console web uploader at "
      "https://console.pelloran.example/project/_/vantrel\n";
  const std::string split = "--split-debug-info enabled, using dSYMs at path (/p/Release-iphoneos/)\n";
  const std::tuple<Environment, bool, Paths, std::string> rows[] = {
      {{}, true, {app, framework}, ""},  // no configuration
      {{}, false, {app}, ""},
      {{{"CONFIGURATION", "Release"}}, true, {app, framework}, ""},
      {{{"CONFIGURATION", "debug"}}, true, {app, framework}, ""},
      {{{"CONFIGURATION", "Debug"}}, true, {app}, ""},
      {{{"CONFIGURATION", "Debug-Staging"}}, true, {app}, ""},
      {{{"CONFIGURATION", "StagingDebug"}}, true, {app}, ""},
      {{{"VEXA_OBFUSCATION", "true"}}, false, {app}, warning},
      {{{"VEXA_OBFUSCATION", "true"}}, true, {app, framework}, warning},
      {{{"VEXA_OBFUSCATION", "TRUE"}}, true, {app, framework}, ""},
      {{{"VEXA_OBFUSCATION", "1"}}, true, {app, framework}, ""},
      {{{"SPLIT_DEBUG_INFO", ""}}, true, {app, framework}, split},
      {{{"SPLIT_DEBUG_INFO", ""}}, false, {app}, ""},
  };
  for (const auto& [variables, lumo, paths, printed] : rows) {
    Environment environment{{"DWARF_DSYM_FOLDER_PATH", "/p/Release-iphoneos/"}, {"DWARF_DSYM_FILE_NAME", "R.app.dSYM"}};
    environment.insert(variables.begin(), variables.end());
    Paths given;
    EXPECT_EQ(consoleOutput(console::kLogLevelDebug, [&] { given = dSYMPathsFromEnvironment(environment, lumo); }),
              printed);
    EXPECT_EQ(given, paths) << ::testing::PrintToString(variables) << (lumo ? ", Lumo" : "");
  }
  EXPECT_EQ(dSYMPathsFromEnvironment({}, false).size(), 1u);  // never empty
}

// A non-empty DWARF folder, then (when the build makes one) a non-empty debug
// dylib, each waited for up to thirty seconds; then two equal readings a
// second apart, or a first reading of zero.
TEST(BuildEnvironmentTest, WaitForDSYMReadsTheSizesInOrder) {
  const std::string D = "/b/App.app.dSYM/Contents/Resources/DWARF", L = D + "/App.debug.dylib";
  Paths thirtyOneL(31, L);
  thirtyOneL.insert(thirtyOneL.begin(), D);
  const struct {
    const char* debugDylib;
    std::deque<std::int64_t> dwarf, dylib;  // the readings in turn; the last repeats, none: 0
    bool ready;
    Paths asked;
    int sleeps;
  } rows[] = {
      {"", {96, 96, 128, 160, 160}, {}, true, Paths(5, D), 3},
      {"", {4096, 0}, {}, true, Paths(2, D), 0},
      {"", {}, {}, false, Paths(31, D), 30},
      {"YES", {128}, {0, 0, 2048}, true, {D, L, L, L, D, D}, 3},
      {"YES", {128}, {}, false, thirtyOneL, 30},
      {"yes", {128}, {}, true, Paths(3, D), 1},
      {"NO", {128}, {}, true, Paths(3, D), 1},
  };
  for (const auto& row : rows) {
    std::map<std::string, std::deque<std::int64_t>> readings{{D, row.dwarf}, {L, row.dylib}};
    Paths asked;
    int sleeps = 0;
    auto size = [&](const std::string& path) -> std::int64_t {
      asked.push_back(path);
      auto& queue = readings[path];
      if (queue.empty()) return 0;
      std::int64_t value = queue.front();
      if (queue.size() > 1) queue.pop_front();
      return value;
    };
    const Environment environment{{"ENABLE_DEBUG_DYLIB", row.debugDylib}, {"EXECUTABLE_NAME", "App"}};
    EXPECT_EQ(waitForDSYM(environment, "/b/App.app.dSYM", WaitHooks{[&] { ++sleeps; }}, size), row.ready);
    EXPECT_EQ(asked, row.asked);
    EXPECT_EQ(sleeps, row.sleeps);
  }
}

TEST(BuildEnvironmentTest, CIUnlessAnXcodeOrTheDesktopAppIsFound) {
  const struct {
    bool xcodeServer, desktopApp, xcode, ci;
    std::vector<std::string> asked;
  } rows[] = {
      {true, true, true, true, {"xcsbuildd"}},
      {false, true, false, false, {"xcsbuildd", "desktop"}},
      {false, false, true, false, {"xcsbuildd", "desktop", "Xcode"}},
      {false, false, false, true, {"xcsbuildd", "desktop", "Xcode"}},  // a terminal, no app, no Xcode
  };
  for (const auto& row : rows) {
    std::vector<std::string> asked;
    auto ancestor = [&](const std::string& name) {
      asked.push_back(name);
      return name == "xcsbuildd" ? row.xcodeServer : name == "Xcode" && row.xcode;
    };
    auto desktop = [&] {
      asked.push_back("desktop");
      return row.desktopApp;
    };
    EXPECT_EQ(isRunningInCI(ancestor, desktop), row.ci);
    EXPECT_EQ(asked, row.asked);
  }

  // The desktop app is the handler xdg-mime names; here a stand-in on PATH.
  TempDir dir;
  std::filesystem::permissions(dir.write("bin/xdg-mime", "#!/bin/sh\n[ \"$*\" = 'query default x-scheme-handler/vantrel' ] && "
                                                         "cat \"$(dirname \"$0\")/handler\"\n"),
                               std::filesystem::perms::owner_all);
  symlift::testing::ScopedEnvironment withStandIn("PATH", dir.str() + "/bin:/usr/bin:/bin");
  dir.write("bin/handler", "vantrel-desktop.desktop\n");
  EXPECT_TRUE(isDesktopAppInstalled());
  EXPECT_FALSE(isRunningInCI());  // not under Xcode Server, app installed
  dir.write("bin/handler", "\n");
  EXPECT_FALSE(isDesktopAppInstalled());
  EXPECT_TRUE(isRunningInCI());  // no app and no Xcode ancestor
}

// The name runs to the last closing parenthesis.
TEST(BuildEnvironmentTest, ParsesTheStatLine) {
  const std::pair<const char*, std::optional<std::pair<std::string, long>>> rows[] = {
      {"4242 (bash) S 4100 4242 4242 34816 4300 4194304 1\n", std::pair{"bash", 4100}},
      {"77 (a) b) (c d) R 12 77 77 0", std::pair{"a) b) (c d", 12}},
      {"", std::nullopt},           {"12 bash S 1", std::nullopt}, {"12 (bash S 1", std::nullopt},
      {"12 )bash( S 1", std::nullopt}, {"12 (bash)", std::nullopt}, {"12 (bash) S x", std::nullopt},
  };
  for (const auto& [text, expected] : rows) {
    auto status = parseProcessStat(text);
    EXPECT_EQ(status ? std::optional(std::pair{status->commandName, status->parentID}) : std::nullopt, expected)
        << text;
  }
}

}  // namespace
}  // namespace symlift::buildenv
