#include "symbols/symbolication_proxy.h"

#include <dlfcn.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cfloat>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <system_error>

#include "support/path_component.h"
#include "support/property_list.h"
#include "support/system_log.h"
#include "support/temporary_directory.h"

namespace symlift::symbols {

const std::array<const char*, kCoreSymbolicationFunctionCount> kCoreSymbolicationFunctionNames = {
    "CSSymbolicatorForeachSymbolicatorWithPath",
    "CSSymbolicatorForeachSharedCache",
    "CSSymbolOwnerCopyDescriptionWithIndent",
    "CSSymbolicatorCopyDescriptionWithIndent",
    "CSSymbolOwnerGetBaseAddress",
    "CSSymbolicatorForeachSymbolOwnerAtTime",
    "CSSymbolOwnerGetRegionWithName",
    "CSRegionForeachSymbol",
    "CSSymbolGetName",
    "CSSymbolGetMangledName",
    "CSSymbolForeachSourceInfo",
    "CSSourceInfoGetPath",
    "CSSourceInfoGetLineNumber",
    "CSSourceInfoGetRange",
    "CSSymbolGetRange",
    "CSSymbolOwnerGetCFUUIDBytes",
    "CSSymbolOwnerIsDsym",
    "CSSymbolOwnerIsDylib",
    "CSSymbolOwnerIsDyldSharedCache",
    "CSSymbolOwnerIsObject",
    "CSArchitectureIs64Bit",
    "CSArchitectureIsX86_64",
    "CSArchitectureGetFamilyName",
    "CSIsNull",
    "CSSymbolicatorGetArchitecture",
};

namespace {

namespace fs = std::filesystem;

// Process-wide loader state. It is written once, under the symbol processor's
// one-time guard, before anything reads it; the mutex only protects the
// test-only search-folder override and resets.
struct LoaderState {
  std::mutex mutex;
  void* debugSymbolsHandle = nullptr;
  void* coreSymbolicationHandle = nullptr;
  std::array<void*, kCoreSymbolicationFunctionCount> functions{};
  std::optional<std::vector<std::string>> searchFoldersOverride;
};

LoaderState& state() {
  static LoaderState instance;
  return instance;
}

std::string homeDirectory() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;
  if (const passwd* entry = getpwuid(getuid()); entry && entry->pw_dir) return entry->pw_dir;
  return {};
}

}  // namespace

float SUPSymbolicationProxy::leadingVersionNumber(std::string_view text) {
  // Like a string's float value: leading blanks, an optional sign, digits with
  // at most one decimal point, an optional exponent; anything after is ignored.
  std::size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  std::size_t start = i;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  std::size_t digits = 0;
  while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) ++i, ++digits;
  if (i < text.size() && text[i] == '.') {
    ++i;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) ++i, ++digits;
  }
  if (digits == 0) return 0.0f;
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    std::size_t j = i + 1;
    if (j < text.size() && (text[j] == '+' || text[j] == '-')) ++j;
    if (j < text.size() && std::isdigit(static_cast<unsigned char>(text[j]))) {
      while (j < text.size() && std::isdigit(static_cast<unsigned char>(text[j]))) ++j;
      i = j;
    }
  }
  // Only digits, sign, point and exponent reach strtof, so neither hexadecimal
  // nor "inf"/"nan" can be read; the process never changes its numeric locale.
  std::string number(text.substr(start, i - start));
  return std::strtof(number.c_str(), nullptr);
}

std::vector<std::string> SUPSymbolicationProxy::applicationSearchFolders() {
  {
    std::lock_guard lock(state().mutex);
    if (state().searchFoldersOverride) return *state().searchFoldersOverride;
  }
  std::vector<std::string> folders{"/Applications"};
  if (std::string home = homeDirectory(); !home.empty()) folders.push_back(support::appendingPathComponent(home, "Applications"));
  return folders;
}

void SUPSymbolicationProxy::setApplicationSearchFoldersForTesting(std::optional<std::vector<std::string>> folders) {
  std::lock_guard lock(state().mutex);
  state().searchFoldersOverride = std::move(folders);
}

std::vector<std::string> SUPSymbolicationProxy::applicationPathsForBundleIdentifier(
    std::string_view bundleIdentifier) {
  std::vector<std::string> applications;
  for (const std::string& folder : applicationSearchFolders()) {
    std::error_code ec;
    std::vector<std::string> names;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
      std::error_code typeError;
      if (it->is_directory(typeError)) names.push_back(it->path().filename().string());
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      std::string bundle = support::appendingPathComponent(folder, name);
      auto info = support::PropertyList::fromFile(support::appendingPathComponent(bundle, "Contents/Info.plist"));
      auto identifier = info.stringForKey("CFBundleIdentifier");
      if (identifier && *identifier == bundleIdentifier) applications.push_back(std::move(bundle));
    }
  }
  return applications;
}

std::optional<std::string> SUPSymbolicationProxy::xcodePathWithMaxCSVersion(float maxVersion) {
  std::vector<std::string> applications = applicationPathsForBundleIdentifier(kXcodeBundleIdentifier);
  // A version must be positive to be chosen.
  float bestVersion = FLT_MIN;
  std::optional<std::string> bestPath;
  const float defaultMax = defaultMaxCoreSymbolicationVersion();
  for (const std::string& application : applications) {
    auto versionPlist = support::PropertyList::fromFile(support::appendingPathComponent(application, kCoreSymbolicationVersionPlist));
    if (!versionPlist) continue;
    auto bundleVersion = versionPlist.stringForKey("CFBundleVersion");
    float version = bundleVersion ? leadingVersionNumber(*bundleVersion) : 0.0f;
    // The default maximum means "no cap".
    bool eligible = maxVersion == defaultMax || maxVersion >= version;
    if (eligible && version > bestVersion) {
      bestVersion = version;
      bestPath = application;
    }
  }
  return bestPath;
}

void SUPSymbolicationProxy::dynamicallyLoadLatestCoreSymbolication(float maxVersion) {
  std::optional<std::string> xcode = xcodePathWithMaxCSVersion(maxVersion);
  std::string symbolicationPath = xcode ? support::appendingPathComponent(*xcode, kCoreSymbolicationLibrary) : std::string();
  std::string debugSymbolsPath = xcode ? support::appendingPathComponent(*xcode, kDebugSymbolsLibrary) : std::string();
  if (symbolicationPath.empty()) {
    support::systemLog("Path to CoreSymbolication is invalid, aborting");
    return;
  }
  void* debugSymbols = dlopen(debugSymbolsPath.c_str(), RTLD_LAZY);
  if (!debugSymbols) support::systemLog("Unable to load DebugSymbols, continuing anyways");
  void* symbolication = dlopen(symbolicationPath.c_str(), RTLD_LAZY);
  {
    std::lock_guard lock(state().mutex);
    state().debugSymbolsHandle = debugSymbols;
    state().coreSymbolicationHandle = symbolication;
  }
  if (!symbolication) {
    support::systemLog("Unable to load CoreSymbolication, aborting");
    return;
  }
  dynamicallyLoadCoreSymbolicationFunctionsFromHandle(symbolication);
}

void SUPSymbolicationProxy::dynamicallyLoadCoreSymbolicationFunctionsFromHandle(void* handle) {
  std::lock_guard lock(state().mutex);
  for (std::size_t i = 0; i < kCoreSymbolicationFunctionCount; ++i) {
    void* function = handle ? dlsym(handle, kCoreSymbolicationFunctionNames[i]) : nullptr;
    if (!function) break;
    state().functions[i] = function;
  }
}

void* SUPSymbolicationProxy::boundFunction(std::size_t index) {
  std::lock_guard lock(state().mutex);
  return index < kCoreSymbolicationFunctionCount ? state().functions[index] : nullptr;
}

void* SUPSymbolicationProxy::debugSymbolsHandle() {
  std::lock_guard lock(state().mutex);
  return state().debugSymbolsHandle;
}

void* SUPSymbolicationProxy::coreSymbolicationHandle() {
  std::lock_guard lock(state().mutex);
  return state().coreSymbolicationHandle;
}

void SUPSymbolicationProxy::resetForTesting() {
  std::lock_guard lock(state().mutex);
  // Libraries stay loaded: nothing is ever unloaded in this process.
  state().debugSymbolsHandle = nullptr;
  state().coreSymbolicationHandle = nullptr;
  state().functions.fill(nullptr);
}

}  // namespace symlift::symbols
