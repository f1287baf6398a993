#include "cli/run_info.h"

#include "buildenv/build_environment.h"
#include "console/console_log.h"
#include "cli/options.h"
#include "cli/platform_names.h"
#include "cli/service_pages.h"
#include "support/info_dictionary.h"

namespace symlift::cli {

using namespace console;

void printUsage() {
  SYLLogBold("usage: symlift [flags] -- <paths>");
  SYLLogInfo("flags:");
  SYLLogInfo("\t-{}, --{} <path to Omvara service plist>", kServicePlistOption.shortName,
             kServicePlistOption.longName);
  SYLLogInfo("\t\tThe path to your app's OmvaraService-Info.plist");
  SYLLogInfo("\t-{}, --{} <Pelloran app id>", kAppIDOption.shortName, kAppIDOption.longName);
  SYLLogInfo(
      "\t\tProvide your Pelloran app id directly without parsing the Omvara service plist. This flag will "
      "supersede the -{}, --{} flag.",
      kServicePlistOption.shortName, kServicePlistOption.longName);
  SYLLogInfo("\t-{}, --{} <platform name>", kPlatformOption.shortName, kPlatformOption.longName);
  SYLLogInfo(
      "\t\tThe platform for which the dSYM was compiled. Either: '{}'. Catalyst apps should be the 'mac' "
      "platform.",
      validPlatformsDescription());
  SYLLogInfo("\t-{}, --{}", kDebugOption.shortName, kDebugOption.longName);
  SYLLogInfo("\t\tOutput extra debug logging while running");
  SYLLogInfo("\t-{}, --{}", kBuildPhaseOption.shortName, kBuildPhaseOption.longName);
  SYLLogInfo(
      "\t\tBuild Phase Mode is meant to be run as an Xcode Run Script Build Phase. It finds the dSYMs and "
      "platform from the build environment variables, instead of having the caller pass them in. With this "
      "flag, <paths> and --{} can be omitted.",
      kPlatformOption.longName);
  SYLLogInfo("\t-{}, --{}", kValidateOption.shortName, kValidateOption.longName);
  SYLLogInfo(
      "\t\tOnly validate the arguments and environment, then stop. This is useful in an Xcode Run Script "
      "Build Phase because it won't add to the build time, but it will report errors if the script isn't "
      "set up correctly.");
  SYLLogInfo("\n<paths>");
  SYLLogInfo(
      "\tlist of one or more paths to dSYMs to upload, zip archives containing dSYMs (like those downloaded "
      "from iTunes Connect for recompiled bitcode apps), or a directory containing multiple dSYMs to be "
      "searched recursively");
  SYLLogInfo(
      "\tMultiple paths of any kind may be provided, such as: \"/path/to/.../app-name.dSYM "
      "[/path/to/.../build-products-directory /path/to/itunes-connect-archive [...]]\"");
  SYLLogBold(
      "\n\tNote: archives downloaded from iTunes Connect do not have a .zip file extension. To verify the "
      "contents of such an archive, use 'unzip' or manually edit the filename to add the .zip extension and "
      "expand in Finder.");
  SYLLogInfo("\nsymlift -{}/--{} prints this usage information", kHelpOption.shortName, kHelpOption.longName);
  SYLLogInfo("symlift -{}/--{} prints version information", kVersionOption.shortName,
             kVersionOption.longName);
  SYLLogHighlight("\nVisit {} with questions or suggestions.", kSupportPageAddress);
}

std::string versionLine(const std::optional<std::string>& shortVersion, const std::optional<std::string>& build) {
  return fmt::format("symlift {} build {}", shortVersion.value_or("?"), build.value_or("?"));
}

void printVersion() {
  SYLLogInfo("{}", versionLine(support::infoDictionaryString("CFBundleShortVersionString"),
                               support::infoDictionaryString("CFBundleVersion")));
}

std::string debugPathsDescription(const std::vector<std::string>& paths) {
  std::string joined;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    if (i > 0) joined += "\", \"";
    joined += paths[i];
  }
  return "[\"" + joined + "\"]";
}

void printDebugInfo(const std::vector<std::string>& paths, const SYLUploadSettings& settings) {
  SYLLogging::sharedInstance().setLogLevel(kLogLevelDebug);
  SYLLogInfo("\nArguments:");
  SYLLogBold("Debug mode enabled");
  if (settings.isCI) {
    SYLLogInfo("Running in a CI Environment");
    if (buildenv::isRunningInXcodeServer()) SYLLogInfo("Running in Xcode Bots");
    if (!buildenv::isRunningInXcode()) SYLLogInfo("Not running in an instance of Xcode.app");
    if (!buildenv::isDesktopAppInstalled()) SYLLogInfo("Vantrel is not installed");
  }
  SYLLogInfo("Omvara App ID: {}", settings.appID);
  SYLLogInfo("Platform: {}", settings.platform);
  SYLLogInfo("DSYM Paths: {}\n", debugPathsDescription(paths));
}

}  // namespace symlift::cli
