#pragma once
// Chooses an installed Xcode by the version of its CoreSymbolicationDT
// framework, loads the framework (and its companion DebugSymbolsDT) with the
// dynamic loader and binds the framework's C functions by name into one
// process-wide table.
//
// Apple's symbolication framework exists only inside Xcode on macOS. On other
// systems the search finds no Xcode and nothing is bound; the symbol processor
// then reads symbols through our own reader.

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace symlift::symbols {

// The functions bound from the framework, in binding order.
inline constexpr std::size_t kCoreSymbolicationFunctionCount = 25;
extern const std::array<const char*, kCoreSymbolicationFunctionCount> kCoreSymbolicationFunctionNames;

inline constexpr const char* kXcodeBundleIdentifier = "com.apple.dt.Xcode";
inline constexpr const char* kCoreSymbolicationVersionPlist =
    "Contents/SharedFrameworks/CoreSymbolicationDT.framework/Versions/A/Resources/version.plist";
inline constexpr const char* kCoreSymbolicationLibrary =
    "Contents/SharedFrameworks/CoreSymbolicationDT.framework/Versions/A/CoreSymbolicationDT";
inline constexpr const char* kDebugSymbolsLibrary =
    "Contents/SharedFrameworks/DebugSymbolsDT.framework/DebugSymbolsDT";

// The default maximum symbolication version: 0.0, no cap.
inline constexpr float kDefaultMaxCoreSymbolicationVersion = 0.0f;
inline float defaultMaxCoreSymbolicationVersion() { return kDefaultMaxCoreSymbolicationVersion; }

class SUPSymbolicationProxy {
 public:
  // Path of the Xcode application bundle with the highest framework version
  // allowed by maxVersion (the default maximum allows any), or nothing.
  static std::optional<std::string> xcodePathWithMaxCSVersion(float maxVersion);

  // Chooses Xcode, loads both libraries and binds the functions. Failures are
  // reported to the system log and leave the functions unbound.
  static void dynamicallyLoadLatestCoreSymbolication(float maxVersion);

  // Looks the function names up in table order in the library behind handle,
  // stopping at the first one that is missing.
  static void dynamicallyLoadCoreSymbolicationFunctionsFromHandle(void* handle);

  // The bound function at index (table order), or nullptr while unbound.
  static void* boundFunction(std::size_t index);
  static void* debugSymbolsHandle();
  static void* coreSymbolicationHandle();

  // Installed applications with the given bundle identifier: bundles directly
  // inside the search folders whose Contents/Info.plist names it, folder by
  // folder, by name within a folder.
  static std::vector<std::string> applicationPathsForBundleIdentifier(std::string_view bundleIdentifier);

  // The folders searched for applications: /Applications and ~/Applications
  // unless replaced (tests point them at temporary folders).
  static std::vector<std::string> applicationSearchFolders();
  static void setApplicationSearchFoldersForTesting(std::optional<std::vector<std::string>> folders);
  // Forgets the handles and bindings so that a test can load again.
  static void resetForTesting();

  // The leading decimal number of a bundle version ("64570.35.1" → 64570.35,
  // non-numeric text → 0.0).
  static float leadingVersionNumber(std::string_view text);
};

}  // namespace symlift::symbols
