// The real symlift binary run by hand: every option spelling, message and
// exit status that can be reached before any dSYM is opened.

#include <gtest/gtest.h>

#include "e2e/output_lines.h"
#include "e2e/manual_run.h"

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

}  // namespace
}  // namespace symlift::testing::e2e
