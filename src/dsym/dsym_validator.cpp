#include "dsym/dsym_validator.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <filesystem>
#include <system_error>

#include "console/console_log.h"
#include "symbols/symbol_processor.h"

namespace symlift::dsym {

namespace fs = std::filesystem;
using symbols::SUPSymbolProcessor;

namespace {

constexpr const char* kToolCommandName = "symlift";

bool hasDSYMExtension(const fs::path& path) {
  std::string extension = path.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension == ".dsym";
}

// A bundle path with no DWARF folder at all (typically a path that does not
// exist) has nothing to read, so it has no symbols. The reader is asked only
// when there is a folder: an empty one is a damaged bundle and its exception
// is reported.
bool isMissingBundle(const std::string& path) {
  if (!path.ends_with("dSYM")) return false;
  std::error_code ec;
  return !fs::is_directory(fs::path(path) / "Contents/Resources/DWARF", ec);
}

}  // namespace

void DSYMValidator::validateDSYMs(const std::vector<std::string>& paths) {
  symbols::SymbolFileCache cache;
  validateDSYMs(paths, cache);
}

void DSYMValidator::validateDSYMs(const std::vector<std::string>& paths, symbols::SymbolFileCache& cache) {
  try {
    std::vector<std::string> dSYMPaths = expandDSYMDirectories(paths);
    checkForEmptyDSYMs(dSYMPaths, cache);
    checkForHiddenDSYMs(dSYMPaths, cache);
  } catch (const std::exception& exception) {
    console::SYLLogError("Failed to validate dSYMs due to exception: {}", exception.what());
  } catch (...) {
    console::SYLLogError("Failed to validate dSYMs due to exception: {}", "unknown exception");
  }
}

std::vector<std::string> DSYMValidator::expandDSYMDirectories(const std::vector<std::string>& paths) {
  std::vector<std::string> dSYMPaths;
  for (const std::string& path : paths) {
    std::error_code ec;
    if (!fs::is_directory(path, ec)) {
      if (hasDSYMExtension(path)) dSYMPaths.push_back(path);
      continue;
    }
    // Listed in full first, so a listing that fails part-way adds nothing.
    std::vector<std::string> entries;
    fs::directory_iterator listing(path, ec);
    for (; !ec && listing != fs::directory_iterator(); listing.increment(ec))
      entries.push_back(listing->path().filename().string());
    if (ec) {
      console::SYLLogError("Unable to expand directory at path {} due to error: {}", path, ec.message());
      continue;
    }
    // The platform lists a folder's entries sorted by name.
    std::sort(entries.begin(), entries.end());
    for (const std::string& entry : entries)
      if (hasDSYMExtension(entry)) dSYMPaths.push_back((fs::path(path) / entry).string());
  }
  return dSYMPaths;
}

void DSYMValidator::checkForEmptyDSYMs(const std::vector<std::string>& dSYMPaths, symbols::SymbolFileCache& cache) {
  for (const std::string& path : removeValidDSYMPathsFrom(dSYMPaths, cache))
    console::SYLLogWarning(
        "Vantrel found an invalid dSYM without any symbols at path: {}. This will result in missing stack frames "
        "for that library in Vantrel. This can happen in some cases when a code obfuscator is used, or when symbols "
        "are stripped from the library / app. For more information, please visit the Vantrel docs. To silence this "
        "warning, pass the --{} flag to symlift / run.",
        path, kSkipDSYMValidationOption);
}

void DSYMValidator::checkForHiddenDSYMs(const std::vector<std::string>& dSYMPaths, symbols::SymbolFileCache& cache) {
  for (const std::string& path : getHiddenDSYMPathsFrom(dSYMPaths, cache))
    console::SYLLogWarning(
        "Vantrel found a dSYM with hidden symbols at path: {}. This will result in hidden stack frames for that "
        "library in Vantrel. This can occur if you have  bitcode enabled in your app. If you have chosen to upload "
        "the symbols for your app to Apple, make sure to download the symbolicated dSYMs from Apple through Xcode or "
        "iTunes Connect. If you have chosen NOT to upload symbols to Apple, you can deobfuscate your dSYMs manually "
        "with the BCSymbolMaps found within the archive of your application using the following command: dsymutil "
        "--symbol-map <BCSymbolFile> <dSYMFileWithHiddenSymbols>.This will perform an in-place deobfuscation of the "
        "provided dSYM.To silence this warning, pass the --{} flag to symlift / run.",
        path, kSkipDSYMValidationOption);
}

std::vector<std::string> DSYMValidator::removeValidDSYMPathsFrom(const std::vector<std::string>& dSYMPaths,
                                                                 symbols::SymbolFileCache& cache) {
  std::vector<std::string> empty;
  for (const std::string& path : dSYMPaths)
    if (isMissingBundle(path) || SUPSymbolProcessor::countSymbolOwnersAtPath(path, cache) == 0) empty.push_back(path);
  return empty;
}

std::vector<std::string> DSYMValidator::removeValidDSYMPathsFrom(const std::vector<std::string>& dSYMPaths) {
  symbols::SymbolFileCache cache;
  return removeValidDSYMPathsFrom(dSYMPaths, cache);
}

std::vector<std::string> DSYMValidator::getHiddenDSYMPathsFrom(const std::vector<std::string>& dSYMPaths,
                                                               symbols::SymbolFileCache& cache) {
  std::vector<std::string> hidden;
  for (const std::string& path : dSYMPaths) {
    if (path == kToolCommandName || isMissingBundle(path)) continue;
    if (SUPSymbolProcessor::checkForHiddenSymbolsAtPath(path, cache)) hidden.push_back(path);
  }
  return hidden;
}

std::vector<std::string> DSYMValidator::getHiddenDSYMPathsFrom(const std::vector<std::string>& dSYMPaths) {
  symbols::SymbolFileCache cache;
  return getHiddenDSYMPathsFrom(dSYMPaths, cache);
}

}  // namespace symlift::dsym
