#include "buildenv/build_environment.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <thread>

#include "support/path_component.h"
#include "buildenv/process_ancestry.h"
#include "buildenv/task.h"
#include "console/console_log.h"
#include "support/system_log.h"

namespace symlift::buildenv {

namespace {

// The value of a variable; a missing one reads as empty.
std::string valueOf(const Environment& environment, const char* name) {
  auto found = environment.find(name);
  return found == environment.end() ? std::string() : found->second;
}

std::optional<std::string> optionalValueOf(const Environment& environment, const char* name) {
  auto found = environment.find(name);
  if (found == environment.end()) return std::nullopt;
  return found->second;
}

std::string lowercased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool fileExistsAtPath(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0;
}

void sleepOneSecond(const WaitHooks& hooks) {
  if (hooks.sleepOneSecond)
    hooks.sleepOneSecond();
  else
    std::this_thread::sleep_for(std::chrono::seconds(1));
}

// A program of that name on PATH, or nothing.
std::optional<std::string> programOnPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::string directories = path ? path : "/usr/local/bin:/usr/bin:/bin";
  std::size_t start = 0;
  while (start <= directories.size()) {
    std::size_t end = directories.find(':', start);
    if (end == std::string::npos) end = directories.size();
    // An empty entry means the current directory.
    std::string directory = end > start ? directories.substr(start, end - start) : std::string(".");
    std::string candidate = support::appendingPathComponent(directory, name);
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  return std::nullopt;
}

constexpr const char* kRequiredVariables[] = {"BUILT_PRODUCTS_DIR", "DWARF_DSYM_FILE_NAME", "DWARF_DSYM_FOLDER_PATH",
                                              "PROJECT_DIR"};

}  // namespace

std::string platformNameFromEnvironment(const Environment& environment) {
  std::string name = lowercased(valueOf(environment, "PLATFORM_NAME"));
  if (name == "macosx") return "mac";
  if (name == "iphoneos" || name == "iphonesimulator") return "ios";
  if (name == "appletvsimulator" || name == "appletvos") return "tvos";
  if (name == "watchsimulator" || name == "watchos") return "watchos";
  if (name == "xrsimulator" || name == "xros") return "xros";
  return "unspecified";
}

std::vector<std::string> dSYMPathsFromEnvironment(const Environment& environment, bool isLumoProject) {
  const std::string folder = valueOf(environment, "DWARF_DSYM_FOLDER_PATH");
  std::vector<std::string> paths{support::appendingPathComponent(folder, valueOf(environment, "DWARF_DSYM_FILE_NAME"))};

  if (valueOf(environment, "VEXA_OBFUSCATION") == "true") {
    console::SYLLogWarning(
        "Lumo build with '--obfuscate' enabled. To view deobfuscated stack traces, upgrade to Lumo 3.12.0+ or "
        "upload dSYMs manually using the Pelloran console web uploader at {}",
        kConsoleVantrelPageURL);
  }

  if (isLumoProject) {
    if (environment.count("SPLIT_DEBUG_INFO"))
      console::SYLLogDebug("--split-debug-info enabled, using dSYMs at path ({})", folder);
    // Debug builds of a Lumo app load the framework's code at run time and
    // make no framework dSYM.
    if (valueOf(environment, "CONFIGURATION").find("Debug") == std::string::npos)
      paths.push_back(support::appendingPathComponent(folder, "App.framework.dSYM"));
  }
  return paths;
}

std::optional<std::string> validateBuildEnvironment(const Environment& environment, bool /*isLumoProject*/) {
  for (const char* name : kRequiredVariables) {
    if (valueOf(environment, name).empty())
      return fmt::format("{} {}", "Failed to Detect Build Environment",
                         fmt::format("{} value not found in environment", name));
  }

  const std::string fileName = valueOf(environment, "DWARF_DSYM_FILE_NAME");
  const std::string path = fmt::format("{}/{}", valueOf(environment, "DWARF_DSYM_FOLDER_PATH"), fileName);
  if (!fileExistsAtPath(path)) {
    // Only a warning: the dSYM may still be on its way, and the wait that
    // follows decides.
    printBuildWarningFormat(
        "DEBUG_INFORMATION_FORMAT should be set to dwarf-with-dsym for all configurations. This could also be a "
        "timing issue, make sure the Pelloran run script build phase is the last build phase and no other scripts "
        "have moved the dSYM from the location Xcode generated it. Unable to process {} at path {}\nMake sure your "
        "project build settings are generating a dSYM file.\n\n",
        fileName, path);
  }
  return std::nullopt;
}

bool waitUntil(std::int64_t timeoutSeconds, const std::function<bool()>& predicate, const WaitHooks& hooks) {
  if (predicate()) return true;
  std::int64_t roundsLeft = std::max<std::int64_t>(timeoutSeconds, 0);
  for (;;) {
    if (roundsLeft == 0) return false;
    --roundsLeft;
    sleepOneSecond(hooks);
    if (predicate()) return true;
  }
}

bool waitForDSYM(const Environment& environment, const std::string& dSYMPath, const WaitHooks& hooks,
                 const std::function<std::int64_t(const std::string&)>& sizeAtPath) {
  const std::string dwarf = fmt::format("{}/{}", dSYMPath, "Contents/Resources/DWARF");

  bool ready = waitUntil(30, [&] {
    console::SYLLogDebug("Checking dSYM size above zero at path \"{}\"", dwarf);
    return sizeAtPath(dwarf) > 0;
  }, hooks);
  if (!ready) return false;

  if (valueOf(environment, "ENABLE_DEBUG_DYLIB") == "YES") {
    const std::string dylib = fmt::format("{}/{}.debug.dylib", dwarf, valueOf(environment, "EXECUTABLE_NAME"));
    ready = waitUntil(30, [&] {
      console::SYLLogDebug("Checking debug dylib dSYM size above zero at path \"{}\"", dylib);
      return sizeAtPath(dylib) > 0;
    }, hooks);
    if (!ready) return false;
  }

  // The linker may still be writing: wait until two readings a second apart
  // agree. The size is that of the DWARF folder entry itself, which changes
  // as files are added to it.
  std::int64_t previousSize = 0;
  return waitUntil(std::numeric_limits<std::int32_t>::max(), [&] {
    std::int64_t size = sizeAtPath(dwarf);
    console::SYLLogDebug("Checking dSYM size {} bytes at path \"{}\"", size, dwarf);
    if (size == previousSize) return true;
    previousSize = size;
    return false;
  }, hooks);
}

bool waitForDSYM(const Environment& environment, const std::string& dSYMPath) {
  return waitForDSYM(environment, dSYMPath, WaitHooks{}, fileSizeAtPath);
}

std::int64_t fileSizeAtPath(const std::string& path) {
  // The attributes of the entry itself: a symbolic link is not followed.
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) {
    support::systemLog(fmt::format("Unable to get file attributes for dSYM file at path \"{}\"", path));
    return 0;
  }
  if (info.st_size < 0) {
    support::systemLog(fmt::format("Unable to get file size for dSYM file at path \"{}\"", path));
    return 0;
  }
  return static_cast<std::int64_t>(info.st_size);
}

support::PropertyList plistFromBuiltProducts(const Environment& environment, const std::string& relativePath) {
  auto builtProducts = optionalValueOf(environment, "BUILT_PRODUCTS_DIR");
  if (!builtProducts) return {};
  support::PropertyList list = support::PropertyList::fromFile(fmt::format("{}/{}", *builtProducts, relativePath));
  if (!list.isDictionary()) return {};
  return list;
}

bool isRunningInCI(const std::function<bool(const std::string&)>& hasAncestor,
                   const std::function<bool()>& desktopAppInstalled) {
  if (hasAncestor("xcsbuildd")) return true;
  if (desktopAppInstalled()) return false;
  return !hasAncestor("Xcode");
}

bool isRunningInCI() {
  return isRunningInCI([](const std::string& name) { return hasAncestorProcessNamed(name); },
                       [] { return isDesktopAppInstalled(); });
}

bool isRunningInXcode() { return hasAncestorProcessNamed("Xcode"); }

bool isRunningInXcodeServer() { return hasAncestorProcessNamed("xcsbuildd"); }

bool isDesktopAppInstalled() {
  // The desktop app registers itself as the handler of "vantrel://" links;
  // the query is given ten seconds, which it never needs.
  auto xdgMime = programOnPath("xdg-mime");
  if (!xdgMime) return false;
  bool named = false;
  SUPTask::launchWithPath(*xdgMime, std::nullopt,
                          SUPTask::Arguments{"query", "default", "x-scheme-handler/vantrel"}, std::nullopt, 10,
                          [&](const std::string&, const std::string& out, std::int32_t status) {
                            named = status == 0 && out.find_first_not_of(" \t\r\n") != std::string::npos;
                          });
  return named;
}

bool hasAncestorProcessNamed(const std::string& name) {
  auto names = ancestorProcessNames(static_cast<long>(::getpid()), readProcessStatus);
  return std::find(names.begin(), names.end(), name) != names.end();
}

void printBuildWarning(const std::optional<std::string>& file, std::uint64_t line, const std::string& message) {
  std::string prefix = file ? fmt::format("{}:{}: ", *file, line) : std::string();
  std::string text = fmt::format("{}warning: {}\n", prefix, message);
  std::fwrite(text.data(), 1, text.size(), stdout);
}

}  // namespace symlift::buildenv
