#pragma once
// Expected console lines of a symlift run whose output is not a terminal
// (no colour).

#include <string>

namespace symlift::testing::e2e {

struct Lines {
  std::string info(const std::string& text) const { return text + "\n"; }
  std::string bold(const std::string& text) const { return text + "\n"; }
  std::string highlight(const std::string& text) const { return text + "\n"; }
  std::string success(const std::string& text) const { return text + "\n"; }
  std::string warning(const std::string& text) const { return "warning: " + text + "\n"; }
  std::string error(const std::string& text) const { return "error: " + text + "\n"; }

  std::string version() const { return info("symlift 0.1.0 build 1"); }

  std::string usage() const {
    return bold("usage: symlift [flags] -- <paths>") + info("flags:") +
           info("\t-osp, --omvara-service-plist <path to Omvara service plist>") +
           info("\t\tThe path to your app's OmvaraService-Info.plist") +
           info("\t-ai, --app-id <Pelloran app id>") +
           info("\t\tProvide your Pelloran app id directly without parsing the Omvara service plist. This flag "
                "will supersede the -osp, --omvara-service-plist flag.") +
           info("\t-p, --platform <platform name>") +
           info("\t\tThe platform for which the dSYM was compiled. Either: 'ios', 'mac', 'tvos'. Catalyst apps "
                "should be the 'mac' platform.") +
           info("\t-d, --debug") + info("\t\tOutput extra debug logging while running") +
           info("\t-bp, --build-phase") +
           info("\t\tBuild Phase Mode is meant to be run as an Xcode Run Script Build Phase. It finds the dSYMs "
                "and platform from the build environment variables, instead of having the caller pass them in. "
                "With this flag, <paths> and --platform can be omitted.") +
           info("\t-val, --validate") +
           info("\t\tOnly validate the arguments and environment, then stop. This is useful in an Xcode Run "
                "Script Build Phase because it won't add to the build time, but it will report errors if the "
                "script isn't set up correctly.") +
           info("\n<paths>") +
           info("\tlist of one or more paths to dSYMs to upload, zip archives containing dSYMs (like those "
                "downloaded from iTunes Connect for recompiled bitcode apps), or a directory containing "
                "multiple dSYMs to be searched recursively") +
           info("\tMultiple paths of any kind may be provided, such as: \"/path/to/.../app-name.dSYM "
                "[/path/to/.../build-products-directory /path/to/itunes-connect-archive [...]]\"") +
           bold("\n\tNote: archives downloaded from iTunes Connect do not have a .zip file extension. To verify "
                "the contents of such an archive, use 'unzip' or manually edit the filename to add the .zip "
                "extension and expand in Finder.") +
           info("\nsymlift -h/--help prints this usage information") +
           info("symlift -v/--version prints version information") +
           highlight("\nVisit https://omvara.example/support with questions or suggestions.");
  }

  // The debug block outside CI.
  std::string debugBlock(const std::string& appID, const std::string& platform, const std::string& paths) const {
    return info("\nArguments:") + bold("Debug mode enabled") + info("Omvara App ID: " + appID) +
           info("Platform: " + platform) + info("DSYM Paths: " + paths + "\n");
  }

  std::string validated() const {
    return success("Validation succeeded. Symbol uploading will proceed in the background.");
  }

  std::string apiKeyManual() const {
    return error(
        "Vantrel no longer uses the Tesmer API Key. A Tesmer API Key was passed to symlift using the -a / "
        "--api-key flag. To fix this, remove the API Key from the command-line arguments, and make sure to pass "
        "the -osp / --omvara-service-plist <path/to/OmvaraService-Info.plist>. If you still use Vantrel in "
        "Tesmer, migrate your app to Pelloran at https://omvara.example/docs/vantrel/tesmer-migration");
  }

  std::string apiKeyBuildPhase() const {
    return error(
        "Vantrel no longer uses the Tesmer API Key. A Tesmer API Key was passed to symlift using the \"run\" "
        "script. To fix this, go into your project's Build Phases, locate the Tesmer run script, and remove the "
        "API Key and Build Secret from the command-line arguments (they are 2 long strings of random "
        "characters). Vantrel now uses your default OmvaraService-Info.plist to identify your app. To use a "
        "different OmvaraService-Info.plist for a build, eg. for separate dev and prod configurations, pass -osp "
        "/ --omvara-service-plist <path/to/OmvaraService-Info.plist> to your run script. If you still use "
        "Vantrel in Tesmer, migrate your app to Pelloran at "
        "https://omvara.example/docs/vantrel/tesmer-migration");
  }

  // A path that is not there: one warning per type test, then the verdict.
  std::string missingPath(const std::string& path) const {
    const std::string missing = warning("Path does not exist: " + path);
    return missing + missing + missing + warning("Path is not a .dSYM, directory, or archive: " + path);
  }

  // The dSYM validator's two findings.
  std::string emptyDSYM(const std::string& path) const {
    return warning("Vantrel found an invalid dSYM without any symbols at path: " + path +
                   ". This will result in missing stack frames for that library in Vantrel. This can happen in some "
                   "cases when a code obfuscator is used, or when symbols are stripped from the library / app. For "
                   "more information, please visit the Vantrel docs. To silence this warning, pass the "
                   "--skip-dsym-validation flag to symlift / run.");
  }
  std::string hiddenDSYM(const std::string& path) const {
    return warning("Vantrel found a dSYM with hidden symbols at path: " + path +
                   ". This will result in hidden stack frames for that library in Vantrel. This can occur if you "
                   "have  bitcode enabled in your app. If you have chosen to upload the symbols for your app to "
                   "Apple, make sure to download the symbolicated dSYMs from Apple through Xcode or iTunes Connect. "
                   "If you have chosen NOT to upload symbols to Apple, you can deobfuscate your dSYMs manually with "
                   "the BCSymbolMaps found within the archive of your application using the following command: "
                   "dsymutil --symbol-map <BCSymbolFile> <dSYMFileWithHiddenSymbols>.This will perform an in-place "
                   "deobfuscation of the provided dSYM.To silence this warning, pass the --skip-dsym-validation flag "
                   "to symlift / run.");
  }

  std::string uploaded() const { return success("Successfully uploaded Vantrel symbols"); }
};

}  // namespace symlift::testing::e2e
