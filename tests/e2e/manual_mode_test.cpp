// The real symlift binary run by hand: every option spelling, message and
// exit status that can be reached before any dSYM is opened.

#include <gtest/gtest.h>

#include "e2e/output_lines.h"
#include "support/test_support.h"

namespace symlift::testing::e2e {
namespace {

const Lines kPlain{false};

// A run in a clean environment, so that nothing of the caller's leaks in.
RunResult run(const std::vector<std::string>& arguments) {
  RunOptions options;
  options.environment = std::map<std::string, std::string>{{"PATH", "/usr/bin:/bin"}};
  options.timeoutSeconds = 30;
  return runSymlift(arguments, options);
}

void expectRun(const std::vector<std::string>& arguments, int status, const std::string& out) {
  std::string line;
  for (const auto& a : arguments) line += " " + a;
  RunResult result = run(arguments);
  EXPECT_EQ(result.status, status) << "symlift" << line;
  EXPECT_EQ(result.out, out) << "symlift" << line;
  EXPECT_EQ(result.err, "") << "symlift" << line;
}

TEST(ManualModeTest, HelpInEverySpellingAndBeforeEverythingElse) {
  for (const char* spelling : {"-h", "--h", "-help", "--help"}) expectRun({spelling}, 5, kPlain.usage());
  expectRun({"--help", "--version"}, 5, kPlain.usage());
  expectRun({"-v", "-a", "key", "-d", "-h"}, 5, kPlain.usage());
}

TEST(ManualModeTest, VersionInEverySpellingBeforeTheAPIKeyCheck) {
  for (const char* spelling : {"-v", "--v", "-version", "--version"}) expectRun({spelling}, 6, kPlain.version());
  expectRun({"-v", "-a", "k"}, 6, kPlain.version());
  // With -d as well the version line is still printed once.
  expectRun({"-debug", "-ai", "X", "-p", "ios", "a.dSYM", "-v"}, 6, kPlain.version());
}

TEST(ManualModeTest, RetiredAPIKeyIsRejected) {
  for (const char* spelling : {"-a", "--a", "-api-key", "--api-key"})
    expectRun({spelling, "k", "-ai", "X", "-p", "ios", "a.dSYM"}, 18, kPlain.apiKeyManual());
  // Checked before the app id, and after the debug version line.
  expectRun({"-d", "-a", "k"}, 18, kPlain.version() + kPlain.apiKeyManual());
}

TEST(ManualModeTest, AppIdentifierProblemsExit13) {
  expectRun({"-p", "ios", "a.dSYM"}, 13, kPlain.error("No Omvara App ID or Omvara Services file provided"));
  expectRun({"-p", "ios", "--", "a.dSYM", "-ai"}, 13,
            kPlain.error("Could not get the value for the app-id parameter"));
  expectRun({"-osp"}, 13, kPlain.error("Could not get path for OmvaraService-Info.plist"));
  expectRun({"-osp", "/nonexistent/OmvaraService-Info.plist", "-p", "ios", "a.dSYM"}, 13,
            kPlain.error("Unable to read Omvara Service plist at path /nonexistent/OmvaraService-Info.plist"));
  // An empty identifier ends the run without a message.
  expectRun({"-ai", "", "-p", "ios", "a.dSYM"}, 13, "");
}

TEST(ManualModeTest, AppIdentifierFromServicePlist) {
  TempDir dir;
  auto plist = dir.write("OmvaraService-Info.plist",
                         "<plist version=\"1.0\"><dict><key>OMVARA_APP_ID</key><string>1:42:ios:9f</string>"
                         "</dict></plist>")
                   .string();
  expectRun({"--omvara-service-plist", plist, "-d", "-val", "-p", "mac", "a.dSYM", "b.zip"}, 0,
            kPlain.version() + kPlain.debugBlock("1:42:ios:9f", "mac", "[\"a.dSYM\", \"b.zip\"]") +
                kPlain.validated());
  for (const char* spelling : {"-osp", "--osp", "-omvara-service-plist"})
    expectRun({spelling, plist, "-p", "ios", "a.dSYM", "-val"}, 0, kPlain.validated());
  for (const char* spelling : {"-ai", "--ai", "-app-id", "--app-id"})
    expectRun({"-osp", plist, spelling, "given", "-p", "ios", "a.dSYM", "-d", "-val"}, 0,
              kPlain.version() + kPlain.debugBlock("given", "ios", "[\"a.dSYM\"]") + kPlain.validated());
  auto noKey = dir.write("nokey.plist", "<plist version=\"1.0\"><dict><key>X</key><true/></dict></plist>").string();
  expectRun({"-osp", noKey, "-p", "mac", "a.dSYM"}, 13,
            kPlain.error("Missing key: OMVARA_APP_ID in Omvara Service plist at path " + noKey));
}

TEST(ManualModeTest, PlatformIsRequiredAndChecked) {
  expectRun({"-ai", "X", "a.dSYM"}, 1, kPlain.error("Missing required flag p/platform"));
  expectRun({"-ai", "X", "--platform=ios", "a.dSYM"}, 1, kPlain.error("Missing required flag p/platform"));
  // Every spelling gives the value.
  for (const char* spelling : {"-p", "--p", "-platform", "--platform"})
    expectRun({"-ai", "X", spelling, "tvos", "a.dSYM", "-d", "-val"}, 0,
              kPlain.version() + kPlain.debugBlock("X", "tvos", "[\"a.dSYM\"]") + kPlain.validated());
  // An invalid name is reported and the run goes on without a platform.
  expectRun({"-ai", "X", "-p", "watchos", "a.dSYM", "b.dSYM", "-val", "-d"}, 0,
            kPlain.version() +
                kPlain.error("Invalid platform name (watchos). Valid platform names are: 'ios', 'mac', 'tvos'") +
                kPlain.debugBlock("X", "unspecified", "[\"a.dSYM\", \"b.dSYM\"]") + kPlain.validated());
  // -p as the last word has no value.
  expectRun({"-ai", "X", "--", "a.dSYM", "-val", "-p"}, 0,
            kPlain.error("Invalid platform name ((null)). Valid platform names are: 'ios', 'mac', 'tvos'") +
                kPlain.validated());
}

TEST(ManualModeTest, PathsMustBeGiven) {
  expectRun({"-ai", "X", "-p", "ios"}, 2, kPlain.error("No dSYM paths provided"));
  // The word after a flag without a value is taken for that flag's value.
  expectRun({"-ai", "X", "-p", "ios", "-c", "a.dSYM"}, 2, kPlain.error("No dSYM paths provided"));
  expectRun({"-ai", "X", "-p", "ios", "-val", "a.dSYM"}, 2, kPlain.error("No dSYM paths provided"));
  // The platform is checked before the paths.
  expectRun({"-ai", "X", "-p", "xros"}, 2,
            kPlain.error("Invalid platform name (xros). Valid platform names are: 'ios', 'mac', 'tvos'") +
                kPlain.error("No dSYM paths provided"));
}

TEST(ManualModeTest, ValidateStopsBeforeAnyDSYMIsOpened) {
  for (const char* spelling : {"-val", "--val", "-validate", "--validate"})
    expectRun({"-ai", "X", "-p", "ios", "/does/not/exist.dSYM", spelling}, 0, kPlain.validated());
  // After "--" every word is a path, even one that looks like an option.
  expectRun({"-d", "--val", "-ai", "X", "-p", "ios", "--", "-weird.dSYM", "x", "--"}, 0,
            kPlain.version() + kPlain.debugBlock("X", "ios", "[\"-weird.dSYM\", \"x\"]") + kPlain.validated());
}

TEST(ManualModeTest, DebugVersionLineThenProcessing) {
  for (const char* spelling : {"-d", "--d", "-debug", "--debug"})
    expectRun({"-ai", "X", "-p", "ios", "a.dSYM", spelling}, 0,
              kPlain.version() + kPlain.debugBlock("X", "ios", "[\"a.dSYM\"]") +
                  kPlain.info("Inspecting next path: a.dSYM") + kPlain.missingPath("a.dSYM") +
                  kPlain.emptyDSYM("a.dSYM") + kPlain.uploaded());
  // Convert-only and version options have nothing to show before processing; -sdv
  // leaves out the validator's warning about the missing dSYM.
  expectRun({"-ai", "X", "-p", "ios", "a.dSYM", "-c", "-sdv", "--max-symbolication-version", "64", "b.dSYM"}, 0,
            kPlain.missingPath("a.dSYM") + kPlain.missingPath("b.dSYM") + kPlain.uploaded());
}

}  // namespace
}  // namespace symlift::testing::e2e
