// The real symlift binary run by hand: every option spelling, message and
// exit status that can be reached before any dSYM is opened.
//
// The real symlift binary run as an Xcode Run Script build phase, with the
// build's variables in its environment: every option spelling, message and
// exit status of the build-phase route. Output goes to a pipe: no colour.

#include <gtest/gtest.h>

#include "e2e/manual_run.h"
#include "e2e/output_lines.h"

namespace symlift::testing::e2e {
namespace {


TEST(ManualModeTest, EveryOptionMessageAndExitStatus) {
  const Lines l;
  TempDir dir;
  const std::string plist =
      dir.write("OmvaraService-Info.plist",
                "<plist version=\"1.0\"><dict><key>OMVARA_APP_ID</key><string>1:42:ios:9f</string></dict></plist>")
          .string();
  const std::string noKey =
      dir.write("nokey.plist", "<plist version=\"1.0\"><dict><key>X</key><true/></dict></plist>").string();
  const std::string missingPlist = "/nonexistent/OmvaraService-Info.plist";
  auto invalidPlatform = [&](const std::string& name) {
    return l.error("Invalid platform name (" + name + "). Valid platform names are: 'ios', 'mac', 'tvos'");
  };
  const std::string noPaths = l.error("No dSYM paths provided");
  expectRows(
      {
          // Help comes before everything else, the version before the API key check.
          {{"{}"}, 5, l.usage(), {"-h", "--h", "-help", "--help"}},
          {{"--help", "--version"}, 5, l.usage()},
          {{"-v", "-a", "key", "-d", "-h"}, 5, l.usage()},
          {{"{}"}, 6, l.version(), {"-v", "--v", "-version", "--version"}},
          {{"-v", "-a", "k"}, 6, l.version()},
          // With -d as well the version line is still printed once.
          {{"-debug", "-ai", "X", "-p", "ios", "a.dSYM", "-v"}, 6, l.version()},
          // The retired API key: checked before the app id, after the debug version line.
          {{"{}", "k", "-ai", "X", "-p", "ios", "a.dSYM"}, 18, l.apiKeyManual(),
           {"-a", "--a", "-api-key", "--api-key"}},
          {{"-d", "-a", "AIzaSyD-not-a-real-key-31337"}, 18, l.version() + l.apiKeyManual()},
          // The app identifier.
          {{"-p", "ios", "a.dSYM"}, 13, l.error("No Omvara App ID or Omvara Services file provided")},
          {{"-p", "ios", "--", "a.dSYM", "-ai"}, 13, l.error("Could not get the value for the app-id parameter")},
          {{"-osp"}, 13, l.error("Could not get path for OmvaraService-Info.plist")},
          {{"-osp", missingPlist, "-p", "ios", "a.dSYM"}, 13,
           l.error("Unable to read Omvara Service plist at path " + missingPlist)},
          {{"-osp", noKey, "-p", "mac", "a.dSYM"}, 13,
           l.error("Missing key: OMVARA_APP_ID in Omvara Service plist at path " + noKey)},
          {{"-ai", "", "-p", "ios", "a.dSYM"}, 13, ""},  // an empty identifier: no message
          {{"--omvara-service-plist", plist, "-d", "-val", "-p", "mac", "a.dSYM", "b.zip"}, 0,
           l.version() + l.debugBlock("1:42:ios:9f", "mac", "[\"a.dSYM\", \"b.zip\"]") + l.validated()},
          {{"{}", plist, "-p", "ios", "a.dSYM", "-val"}, 0, l.validated(), {"-osp", "--osp", "-omvara-service-plist"}},
          // -ai supersedes the service plist.
          {{"-osp", plist, "{}", "given", "-p", "ios", "a.dSYM", "-d", "-val"}, 0,
           l.version() + l.debugBlock("given", "ios", "[\"a.dSYM\"]") + l.validated(),
           {"-ai", "--ai", "-app-id", "--app-id"}},
          // The platform.
          {{"-ai", "X", "a.dSYM"}, 1, l.error("Missing required flag p/platform")},
          {{"-ai", "X", "--platform=ios", "a.dSYM"}, 1, l.error("Missing required flag p/platform")},
          {{"-ai", "X", "{}", "tvos", "a.dSYM", "-d", "-val"}, 0,
           l.version() + l.debugBlock("X", "tvos", "[\"a.dSYM\"]") + l.validated(),
           {"-p", "--p", "-platform", "--platform"}},
          // An invalid name is reported and the run goes on without a platform.
          {{"-ai", "X", "-p", "watchos", "a.dSYM", "b.dSYM", "-val", "-d"}, 0,
           l.version() + invalidPlatform("watchos") + l.debugBlock("X", "unspecified", "[\"a.dSYM\", \"b.dSYM\"]") +
               l.validated()},
          {{"-ai", "X", "--", "a.dSYM", "-val", "-p"}, 0, invalidPlatform("(null)") + l.validated()},  // no value
          // The paths; the word after a flag without a value is taken for its value.
          {{"-ai", "X", "-p", "ios"}, 2, noPaths},
          {{"-ai", "X", "-p", "ios", "-c", "a.dSYM"}, 2, noPaths},
          {{"-ai", "X", "-p", "ios", "-val", "a.dSYM"}, 2, noPaths},
          {{"-ai", "X", "-p", "xros"}, 2, invalidPlatform("xros") + noPaths},  // the platform first
          // -val stops before any dSYM is opened.
          {{"-ai", "X", "-p", "ios", "/does/not/exist.dSYM", "{}"}, 0, l.validated(),
           {"-val", "--val", "-validate", "--validate"}},
          // After "--" every word is a path, even one that looks like an option.
          {{"-d", "--val", "-ai", "X", "-p", "ios", "--", "-weird.dSYM", "x", "--"}, 0,
           l.version() + l.debugBlock("X", "ios", "[\"-weird.dSYM\", \"x\"]") + l.validated()},
          // Processing: the debug lines, and the dSYM validator's warning unless -sdv.
          {{"-ai", "X", "-p", "ios", "a.dSYM", "{}"}, 0,
           l.version() + l.debugBlock("X", "ios", "[\"a.dSYM\"]") + l.info("Inspecting next path: a.dSYM") +
               l.missingPath("a.dSYM") + l.emptyDSYM("a.dSYM") + l.uploaded(),
           {"-d", "--d", "-debug", "--debug"}},
          {{"-ai", "X", "-p", "ios", "a.dSYM", "-c", "-sdv", "--max-symbolication-version", "64", "b.dSYM"}, 0,
           l.missingPath("a.dSYM") + l.missingPath("b.dSYM") + l.uploaded()},
      },
      {{"PATH", "/usr/bin:/bin"}});
}

TEST(BuildPhaseTest, EveryOptionMessageAndExitStatus) {
  const Lines l;
  // A built product with its service plist and a DWARF file (no Mach-O).
  TempDir dir;
  const std::string products = (dir.path() / "Build/Products/Debug-iphoneos").string();
  const std::string dSYM = products + "/App.app.dSYM";
  dir.write("Build/Products/Debug-iphoneos/App.app/OmvaraService-Info.plist",
            "<plist version=\"1.0\"><dict><key>OMVARA_APP_ID</key><string>1:77:ios:beef</string></dict></plist>");
  dir.write("Build/Products/Debug-iphoneos/App.app.dSYM/Contents/Resources/DWARF/App", "dwarf bytes");
  const std::string lumo = dir.write("Project/LumoAppIDFile.vexa", "{\"OMVARA_APP_ID\": \"  1:3:ios:aa\\n\"}").string();
  const std::string noLumo = dir.str() + "/missing.json";
  const std::string array = dir.write("array.json", "[{\"OMVARA_APP_ID\": \"x\"}]").string();
  const std::string noKey = dir.write("nokey.json", "{\"APP_ID\": \"x\"}").string();
  const std::string blank = dir.write("blank.json", "{\"OMVARA_APP_ID\": \" \\n\"}").string();

  const std::string header =
      l.info("Running symlift in Build Phase mode") + l.info("Validating build environment for Vantrel...");
  // A "-d -val" run: no Xcode, Xcode Server or desktop app here, so CI.
  auto validatedInDebug = [&](const std::string& appID, const std::string& platform, const std::string& paths) {
    return l.version() + header + l.info("\nArguments:") + l.bold("Debug mode enabled") +
           l.info("Running in a CI Environment") + l.info("Not running in an instance of Xcode.app") +
           l.info("Vantrel is not installed") + l.info("Omvara App ID: " + appID) + l.info("Platform: " + platform) +
           l.info("DSYM Paths: " + paths + "\n") + l.validated();
  };
  auto missing = [&](const std::string& name) {
    return header + l.error("Failed to Detect Build Environment " + name + " value not found in environment");
  };
  const std::string ourDSYM = "[\"" + dSYM + "\"]";
  const std::string noPlatform = l.info("Running symlift in Build Phase mode") +
                                 l.warning("Could not get platform name from build environment") +
                                 l.info("Validating build environment for Vantrel...") + l.validated();
  expectRows(
      {
          {{"{}", "-d", "-val"}, 0, validatedInDebug("1:77:ios:beef", "ios", ourDSYM),
           {"-bp", "--bp", "-build-phase", "--build-phase"}},
          // The platform comes from the environment, not the option; an
          // unknown or missing one is only a warning.
          {{"-bp", "-p", "mac", "-d", "-val"}, 0, validatedInDebug("1:77:ios:beef", "tvos", ourDSYM), {},
           {{"PLATFORM_NAME", "appletvsimulator"}}},
          {{"-bp", "-val"}, 0, noPlatform, {}, {{"PLATFORM_NAME", "driverkit"}}},
          {{"-bp", "-val"}, 0, noPlatform, {}, {{"PLATFORM_NAME", ""}}},
          // Paths on the command line follow the derived one.
          {{"-bp", "-d", "-val", "--", "extra.dSYM", "more.zip"}, 0,
           validatedInDebug("1:77:ios:beef", "ios", "[\"" + dSYM + "\", \"extra.dSYM\", \"more.zip\"]")},
          // The first missing (or empty) variable is reported.
          {{"-bp", "-ai", "X", "-val"}, 15, missing("PROJECT_DIR"), {}, {{"PROJECT_DIR", std::nullopt}}},
          {{"-bp", "-ai", "X", "-val"}, 15, missing("DWARF_DSYM_FOLDER_PATH"), {},
           {{"PROJECT_DIR", std::nullopt}, {"DWARF_DSYM_FOLDER_PATH", ""}}},
          {{"-bp", "-ai", "X", "-val"}, 15, missing("BUILT_PRODUCTS_DIR"), {},
           {{"PROJECT_DIR", std::nullopt}, {"DWARF_DSYM_FOLDER_PATH", ""}, {"BUILT_PRODUCTS_DIR", std::nullopt}}},
          // A missing dSYM is only a warning.
          {{"-bp", "-val"}, 0,
           header +
               "warning: DEBUG_INFORMATION_FORMAT should be set to dwarf-with-dsym for all configurations. This could "
               "also be a timing issue, make sure the Pelloran run script build phase is the last build phase and no "
               "other scripts have moved the dSYM from the location Xcode generated it. Unable to process "
               "Other.app.dSYM at path " +
               products + "/Other.app.dSYM\nMake sure your project build settings are generating a dSYM file.\n\n\n" +
               l.validated(),
           {}, {{"DWARF_DSYM_FILE_NAME", "Other.app.dSYM"}}},
          // The app identifier comes from the built products; -ai supersedes them.
          {{"-bp", "-val"}, 13,
           l.error("Could not get OMVARA_APP_ID in Omvara Services file from build environment"), {},
           {{"UNLOCALIZED_RESOURCES_FOLDER_PATH", std::nullopt}}},
          {{"-bp", "-ai", "given", "-d", "-val"}, 0, validatedInDebug("given", "ios", ourDSYM), {},
           {{"UNLOCALIZED_RESOURCES_FOLDER_PATH", std::nullopt}}},
          {{"-bp", "--help"}, 5, l.usage()},
          {{"--build-phase", "-api-key", "k"}, 18, l.apiKeyBuildPhase()},
          // -lp takes the build-phase route, with -ai and without -bp too; a
          // release build adds the Lumo framework's dSYM.
          {{"-lp", "app.json", "-a", "k"}, 18, l.apiKeyBuildPhase()},
          {{"{}", lumo, "-d", "-val"}, 0,
           validatedInDebug("1:3:ios:aa", "ios", "[\"" + dSYM + "\", \"" + products + "/App.framework.dSYM\"]"),
           {"-lp", "--lp", "-lumo-project", "--lumo-project"}, {{"CONFIGURATION", "Release"}}},
          // Debug configurations (any name containing "Debug") leave it out.
          {{"-lp", lumo, "-d", "-val"}, 0, validatedInDebug("1:3:ios:aa", "ios", ourDSYM), {},
           {{"CONFIGURATION", "Debug-Staging"}}},
          {{"-ai", "X", "-lp", lumo, "-val"}, 0, header + l.validated()},
          // The Lumo file's problems, each reported once; a value of only white space: no message.
          {{"-lp"}, 13, l.error("Could not get path for LumoAppIDFile.vexa")},
          {{"-lp", noLumo}, 13, l.error("Unable to read file at path " + noLumo)},
          {{"-lp", array}, 13, l.error("Unable to create json from file at path " + array)},
          {{"-lp", noKey}, 13, l.error("Unable to read valid app ID from path " + noKey)},
          {{"-lp", blank, "-val"}, 13, ""},
          // Processing: the DWARF file here is no Mach-O file, so nothing to convert or send.
          {{"-bp", "-c", "-sdv"}, 0,
           header + l.info("Processing dSYMs...") +
               l.warning("No architecture slices in dSYM at " + dSYM + "/Contents/Resources/DWARF/App") +
               l.success("Successfully uploaded Vantrel build event and symbols")},
      },
      {
          {"PATH", "/usr/bin:/bin"},
          {"BUILT_PRODUCTS_DIR", products},
          {"UNLOCALIZED_RESOURCES_FOLDER_PATH", "App.app"},
          {"DWARF_DSYM_FOLDER_PATH", products},
          {"DWARF_DSYM_FILE_NAME", "App.app.dSYM"},
          {"PROJECT_DIR", (dir.path() / "Project").string()},
          {"PLATFORM_NAME", "iPhoneOS"},
          {"CONFIGURATION", "Debug"},
      });
}

}  // namespace
}  // namespace symlift::testing::e2e
