#pragma once
// Everything that reads an Xcode build phase's environment: the platform, the
// dSYM paths, the check that the environment is complete, the wait until each
// dSYM is completely written, the built executable and CI detection.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "support/property_list.h"

namespace symlift::macho {
class SUPMachOBinary;
}
namespace symlift::records {
class SUPDSYMUploadRecorder;
}

namespace symlift::buildenv {

using Environment = std::map<std::string, std::string>;

// PLATFORM_NAME (compared ignoring case) mapped to "mac", "ios", "tvos",
// "watchos", "xros", or "unspecified".
std::string platformNameFromEnvironment(const Environment& environment);

// The app's dSYM (DWARF_DSYM_FOLDER_PATH joined with DWARF_DSYM_FILE_NAME),
// plus the Lumo framework dSYM for non-debug Lumo builds. Never empty.
std::vector<std::string> dSYMPathsFromEnvironment(const Environment& environment, bool isLumoProject);

// The message for the first missing build variable, or nothing. A missing
// dSYM file only prints a build warning.
std::optional<std::string> validateBuildEnvironment(const Environment& environment, bool isLumoProject);

// Waits until the dSYM at path has a non-empty, stable DWARF folder (and the
// debug dylib, when the build makes one); false when one of its waits gave
// up (the run then ends with status 1).
bool waitForDSYM(const Environment& environment, const std::string& dSYMPath);

// The sleep of the waits, replaceable so that the waiting logic can be
// exercised without waiting. An empty hook does the real thing.
struct WaitHooks {
  std::function<void()> sleepOneSecond;  // default: sleep one second
};

// Evaluates the predicate, then up to max(timeout, 0) more times one second
// apart; true as soon as it holds, false when it never did.
bool waitUntil(std::int64_t timeoutSeconds, const std::function<bool()>& predicate, const WaitHooks& hooks = {});

// waitForDSYM with hooks and the size reading to use (fileSizeAtPath by
// default); false as soon as one of its waits gave up.
bool waitForDSYM(const Environment& environment, const std::string& dSYMPath, const WaitHooks& hooks,
                 const std::function<std::int64_t(const std::string&)>& sizeAtPath);

// Size in bytes of what is at path, 0 when unknown (with a system-log line).
std::int64_t fileSizeAtPath(const std::string& path);

// BUILT_PRODUCTS_DIR joined with EXECUTABLE_PATH, opened as a Mach-O binary;
// nothing when the path cannot be formed or the file cannot be mapped.
std::shared_ptr<macho::SUPMachOBinary> builtExecutable(const Environment& environment);

// The property list at BUILT_PRODUCTS_DIR/relativePath, or an empty one.
support::PropertyList plistFromBuiltProducts(const Environment& environment, const std::string& relativePath);

bool isRunningInCI();
// The CI decision with its two inputs supplied: an Xcode Server build
// daemon ancestor means CI, an installed desktop app means not CI, otherwise
// CI unless an Xcode ancestor is found. Each input is asked only when needed.
bool isRunningInCI(const std::function<bool(const std::string&)>& hasAncestorProcessNamed,
                   const std::function<bool()>& isDesktopAppInstalled);
bool isRunningInXcode();
bool isRunningInXcodeServer();
bool isDesktopAppInstalled();
bool hasAncestorProcessNamed(const std::string& name);

// "<file>:<line>: warning: <message>\n" (or without the location) written
// straight to standard output, for Xcode's build log.
void printBuildWarning(const std::optional<std::string>& file, std::uint64_t line, const std::string& message);

// Formats the message and prints it as a build warning without a location.
template <typename... Args>
void printBuildWarningFormat(fmt::format_string<Args...> format, Args&&... args) {
  printBuildWarning(std::nullopt, 0, fmt::format(format, std::forward<Args>(args)...));
}

// The address of the service console's Vantrel page.
inline constexpr std::string_view kConsoleVantrelPageURL = "https://console.pelloran.example/project/_/vantrel";

}  // namespace symlift::buildenv
