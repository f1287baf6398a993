#pragma once
// DSYMValidator: warns about dSYMs that would upload without being useful,
// those with no code symbols at all (stripped or obfuscated builds) and those
// whose symbols are hidden (bitcode builds whose symbols were not taken back
// from the store). It only warns: it never stops an upload, changes the exit
// status or removes anything. Every operation is class-level.
//
// Given the run's cache, a file the run converted already is not read again,
// and a file read here first is kept for the conversion (see SymbolFileCache).
// Without one, each call reads with a cache of its own, every file once.

#include <string>
#include <vector>

#include "symbols/symbol_file_cache.h"

namespace symlift::dsym {

inline constexpr const char* kSkipDSYMValidationOption = "skip-dsym-validation";

class DSYMValidator {
 public:
  // Expands the paths one level and runs the empty check, then the hidden
  // check. An exception from the symbol reader ends validation with one
  // error line; nothing escapes.
  static void validateDSYMs(const std::vector<std::string>& paths, symbols::SymbolFileCache& cache);
  static void validateDSYMs(const std::vector<std::string>& paths);

  // One level, no recursion: a directory yields its entries whose extension
  // is "dsym" in any case; any other path is kept when its own extension is.
  static std::vector<std::string> expandDSYMDirectories(const std::vector<std::string>& paths);

  static void checkForEmptyDSYMs(const std::vector<std::string>& dSYMPaths, symbols::SymbolFileCache& cache);
  static void checkForHiddenDSYMs(const std::vector<std::string>& dSYMPaths, symbols::SymbolFileCache& cache);

  // The paths whose code-symbol count is 0 (the valid ones are removed).
  static std::vector<std::string> removeValidDSYMPathsFrom(const std::vector<std::string>& dSYMPaths,
                                                           symbols::SymbolFileCache& cache);
  static std::vector<std::string> removeValidDSYMPathsFrom(const std::vector<std::string>& dSYMPaths);
  // The paths with at least one hidden code symbol; the tool's own command
  // name "symlift" is never asked about.
  static std::vector<std::string> getHiddenDSYMPathsFrom(const std::vector<std::string>& dSYMPaths,
                                                         symbols::SymbolFileCache& cache);
  static std::vector<std::string> getHiddenDSYMPathsFrom(const std::vector<std::string>& dSYMPaths);
};

}  // namespace symlift::dsym
