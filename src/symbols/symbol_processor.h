#pragma once
// Turns the debug information of a DWARF file (or dSYM bundle) into cSYM text,
// one document per architecture slice, and answers the dSYM validator's two
// questions: how many code symbols there are and whether any are hidden.
// Every operation is class-level; results go to visitors, one call per item,
// in a fixed order.
//
// Every reading operation comes in two forms: one given the run's
// SymbolFileCache, through which each file is mapped and decoded once per
// run, and one given only a path, which reads with a cache of its own (a
// pool of its own, no damage reports) and keeps nothing.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "support/error.h"
#include "symbols/symbol_file_cache.h"
#include "symbols/symbol_range.h"
#include "symbols/symbolication_provider.h"

namespace symlift::symbols {

inline constexpr const char* kSymbolicationErrorDomain = "SUPSymbolicationErrorDomain";
inline constexpr std::string_view kTextRegionName = "__TEXT __text";
inline constexpr std::string_view kNullSymbolName = "(null)";
inline constexpr std::string_view kHiddenSymbolMarker = "_hidden#";

// Thrown when a dSYM bundle has no DWARF file to read (an empty or missing
// Contents/Resources/DWARF folder). The dSYM validator reports it.
class SymbolReaderException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct TransparentStringHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};
using OffLimitSymbolSet = std::unordered_set<std::string, TransparentStringHash, std::equal_to<>>;

class SUPSymbolProcessor {
 public:
  using FormattedDataVisitor =
      std::function<void(std::uint64_t sourceType, const std::optional<std::string>& uuid, const std::string& arch,
                         std::string& data, const support::ErrorPtr& error)>;
  using SymbolicationDataVisitor = std::function<void(
      std::uint64_t sourceType, const std::optional<std::string>& uuid, const std::string& arch,
      const std::vector<std::string>& files, const std::vector<std::string>& symbols,
      const std::vector<SUPSymbolRange>& ranges, const support::ErrorPtr& error)>;
  using SymbolOwnerVisitor =
      std::function<void(const SymbolOwner& owner, const std::optional<std::string>& uuid, const std::string& arch)>;
  using TextSymbolVisitor = std::function<void(const SymbolInfo& symbol, std::string_view name)>;
  using SymbolRangeVisitor = std::function<void(SUPSymbolRange& range)>;
  using SymbolNameVisitor = std::function<void(const std::string& name)>;

  // Calls the visitor once per slice with that slice's complete cSYM text. A
  // slice without a UUID comes with an error but is still formatted. The
  // visitor may keep the text (move it away). Records the file's facts in
  // the cache as it goes.
  static void enumerateFormattedDataVersion(std::uint64_t version, const std::string& path, float maxVersion,
                                            const FormattedDataVisitor& visitor, SymbolFileCache& cache);
  static void enumerateFormattedDataVersion(std::uint64_t version, const std::string& path, float maxVersion,
                                            const FormattedDataVisitor& visitor);
  static void enumerateFormattedDataVersion(std::uint64_t version, const std::string& path,
                                            const FormattedDataVisitor& visitor);

  // The per-slice lists before formatting: files in order of first use,
  // symbols in region order, ranges symbol by symbol. Made by the same loop
  // as the text, so formattedDataVersion of them is that text.
  static void enumerateSymbolicationDataFromFile(const std::string& path, const SymbolicationDataVisitor& visitor,
                                                 SymbolFileCache& cache);
  static void enumerateSymbolicationDataFromFile(const std::string& path, const SymbolicationDataVisitor& visitor);

  // The cSYM text of one slice from lists, written as they are; the format
  // version written is always 1.
  static std::string formattedDataVersion(std::uint64_t version, std::uint64_t sourceType,
                                          const std::optional<std::string>& uuid, const std::string& arch,
                                          const std::vector<std::string>& files,
                                          const std::vector<std::string>& symbols,
                                          const std::vector<SUPSymbolRange>& ranges);

  // A path ending in "dSYM" resolves to the first entry of the bundle's
  // Contents/Resources/DWARF folder; any other path is returned unchanged.
  // Throws SymbolReaderException when that folder has no entry.
  static std::string executablePathForInputPath(const std::string& path);

  // Binds the platform's symbolication framework once per process (with the
  // first call's maximum version); later calls change nothing.
  static void loadCoreSymbolication(float maxVersion);

  // The path is read as given.
  static void enumerateSymbolOwnersAtPath(const std::string& path, const SymbolOwnerVisitor& visitor,
                                          SymbolFileCache& cache);
  static void enumerateSymbolOwnersAtPath(const std::string& path, const SymbolOwnerVisitor& visitor);
  static void enumerateTextRegionSymbolsForOwner(const SymbolOwner& owner, const TextSymbolVisitor& visitor);
  static void enumerateSymbolRangesForSymbol(const SymbolInfo& symbol, std::uint64_t base,
                                             const SymbolRangeVisitor& visitor);

  // Both of the validator's questions at once, asked of the cache first: a
  // file the run converted already is not read again. Otherwise the file is
  // decoded, and the cache keeps the slices for the conversion to take.
  static SymbolFileFacts symbolFactsAtPath(const std::string& path, SymbolFileCache& cache);
  // The number of code symbols (not owners) of every slice.
  static std::int64_t countSymbolOwnersAtPath(const std::string& path, SymbolFileCache& cache);
  static std::int64_t countSymbolOwnersAtPath(const std::string& path);
  // Whether any code symbol's name contains "_hidden#".
  static bool checkForHiddenSymbolsAtPath(const std::string& path, SymbolFileCache& cache);
  static bool checkForHiddenSymbolsAtPath(const std::string& path);

  // Mangled names whose demangled form must not be requested; such symbols
  // are listed under their mangled names.
  static const OffLimitSymbolSet& offLimitMangledSymbols();

  // Every distinct code-symbol name of all slices, in no defined order, except
  // empty names, "(null)" and block helpers. The path is read as given.
  // Always returns true; error is never set.
  static bool enumerateSymbolsFromFile(const std::string& path, support::ErrorPtr* error,
                                       const SymbolNameVisitor& visitor, SymbolFileCache& cache);
  static bool enumerateSymbolsFromFile(const std::string& path, support::ErrorPtr* error,
                                       const SymbolNameVisitor& visitor);

  // The owner's kind: the first of dsym, dylib, dyld shared cache, object
  // that holds, else unknown (0).
  static std::uint64_t sourceTypeForOwner(const SymbolOwner& owner);
  // "arm64e"/"arm64" for 64-bit non-x86_64 architectures (by bit 1 of the
  // subtype), the family name otherwise.
  static std::string architectureName(const SymbolicationArchitecture& architecture);
  // 32 lower-case hexadecimal digits.
  static std::string uuidString(const std::array<std::uint8_t, 16>& bytes);
};

}  // namespace symlift::symbols
