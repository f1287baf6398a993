#include "symbols/symbol_processor.h"

#include "console/console_log.h"

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <system_error>

#include "macho/architecture_names.h"
#include "symbols/csym_text.h"
#include "symbols/symbolication_proxy.h"

namespace symlift::symbols {

namespace {

namespace fs = std::filesystem;

// Lines above this are not trusted and written as unknown.
constexpr std::uint64_t kMaximumLineNumber = 99999;
constexpr std::string_view kBlockHelperPrefixes[] = {"__copy_helper_block", "__destroy_helper_block",
                                                     "__block_global"};

// The ranges of one symbol: one per source record, or the symbol's own
// extent when it has none; addresses relative to base. An empty path is
// no path (a plain view: an optional built per range would go through
// memory, and reading its flag byte back stalls every range).
template <typename RangeVisitor>
void forEachRange(const SymbolInfo& symbol, std::uint64_t base, RangeVisitor&& visit) {
  for (const SourceInfo& info : symbol.sourceInfos) {
    const std::int64_t line = info.line <= kMaximumLineNumber ? static_cast<std::int64_t>(info.line) : -1;
    visit(info.address - base, info.length, info.path, line);
  }
  if (symbol.sourceInfos.empty()) visit(symbol.address - base, symbol.length, std::string_view{}, std::int64_t{-1});
}

// The one loop from a slice's symbols to its ranges: out gets every named
// symbol (addSymbol) and its ranges (addRange); facts counts every symbol.
template <typename Out>
void readSlice(const SymbolOwner& owner, Out& out, SymbolFileFacts& facts) {
  const std::uint64_t base = owner.baseAddress();
  SUPSymbolProcessor::enumerateTextRegionSymbolsForOwner(owner, [&](const SymbolInfo& symbol, std::string_view name) {
    ++facts.codeSymbolCount;
    if (name.find(kHiddenSymbolMarker) != std::string_view::npos) facts.hasHiddenSymbols = true;
    if (name == kNullSymbolName) return;
    const std::int64_t symbolIndex = out.addSymbol(name);
    forEachRange(symbol, base, [&](std::uint64_t location, std::uint64_t length, std::string_view path,
                                   std::int64_t line) { out.addRange(location, length, symbolIndex, path, line); });
  });
}

// The lists of one slice, for the raw-list interface.
struct SliceLists {
  std::vector<std::string> files;
  std::vector<std::string> symbols;
  std::vector<SUPSymbolRange> ranges;
  CSYMFileTable fileTable;  // owns the paths the ranges point at

  std::int64_t addSymbol(std::string_view name) {
    symbols.emplace_back(name);
    return static_cast<std::int64_t>(symbols.size() - 1);
  }
  void addRange(std::uint64_t location, std::uint64_t length, std::int64_t symbolIndex, std::string_view path,
                std::int64_t line) {
    SUPSymbolRange range;
    range.setRange({location, length});
    range.setSymbolIndex(symbolIndex);
    range.setLineNumber(line);
    if (!path.empty()) {
      const CSYMFileTable::Entry file = fileTable.fileFor(path);
      if (file.isNew) files.emplace_back(file.listedPath);
      range.setPath(file.listedPath);
      range.setFileIndex(file.index);
    }
    ranges.push_back(range);
  }
};

bool isBlockHelper(std::string_view name) {
  return std::any_of(std::begin(kBlockHelperPrefixes), std::end(kBlockHelperPrefixes),
                     [&](std::string_view prefix) { return name.starts_with(prefix); });
}

// The distinct names, and no text.
struct SymbolNames {
  std::unordered_set<std::string, TransparentStringHash, std::equal_to<>> distinct;

  std::int64_t addSymbol(std::string_view name) {
    if (!name.empty() && !isBlockHelper(name) && distinct.find(name) == distinct.end()) distinct.emplace(name);
    return 0;
  }
  void addRange(std::uint64_t, std::uint64_t, std::int64_t, std::string_view, std::int64_t) {}
};

// Only the facts.
struct NoText {
  std::int64_t addSymbol(std::string_view) { return 0; }
  void addRange(std::uint64_t, std::uint64_t, std::int64_t, std::string_view, std::int64_t) {}
};

using OwnerBody = std::function<void(const SymbolOwner& owner, const std::optional<std::string>& uuid,
                                     const std::string& arch, SymbolFileFacts& facts)>;

// Every owner of every slice of the file (read as given); afterwards the
// facts the body counted go to the cache.
void forEachOwner(const std::string& file, SymbolFileCache& cache, SymbolFileCache::Decoded decoded,
                  const OwnerBody& body) {
  SymbolFileFacts facts;
  cache.forEachSlice(file, decoded, [&](const Symbolicator& symbolicator) {
    const std::string arch = SUPSymbolProcessor::architectureName(symbolicator.architecture());
    symbolicator.forEachSymbolOwner([&](const SymbolOwner& owner) {
      std::optional<std::string> uuid;
      if (auto bytes = owner.uuidBytes()) uuid = SUPSymbolProcessor::uuidString(*bytes);
      body(owner, uuid, arch, facts);
    });
  });
  cache.recordFacts(file, facts);
}

// What a slice's cSYM may weigh: many times the slice itself (a real one
// is a fraction of it), and never less than a floor for small slices.
constexpr std::uint64_t kCSYMBudgetPerSliceByte = 16;
constexpr std::uint64_t kCSYMBudgetFloor = std::uint64_t{256} << 20;

std::uint64_t csymBudgetFor(const SymbolOwner& owner) {
  return std::max(kCSYMBudgetFloor, kCSYMBudgetPerSliceByte * owner.sliceBytes());
}

support::ErrorPtr errorForSlice(const std::optional<std::string>& uuid) {
  if (!uuid || uuid->empty()) return support::makeError(kSymbolicationErrorDomain, 0);
  return nullptr;
}

}  // namespace

std::string SymbolicationArchitecture::familyName() const {
  return macho::architectureFamilyName(cputype, cpusubtype);
}

void SUPSymbolProcessor::loadCoreSymbolication(float maxVersion) {
  static std::once_flag once;
  std::call_once(once, [maxVersion] {
#ifdef __APPLE__
    // Apple's framework, when an installed Xcode provides it.
    SUPSymbolicationProxy::dynamicallyLoadLatestCoreSymbolication(maxVersion);
#else
    // No Xcode exists here: our own reader serves every operation.
    (void)maxVersion;
#endif
  });
}

std::string SUPSymbolProcessor::executablePathForInputPath(const std::string& path) {
  if (!path.ends_with("dSYM")) return path;
  std::string dwarfFolder = path;
  if (dwarfFolder.empty() || dwarfFolder.back() != '/') dwarfFolder.push_back('/');
  dwarfFolder.append("Contents/Resources/DWARF");
  std::error_code ec;
  fs::directory_iterator listing(dwarfFolder, ec);
  if (ec || listing == fs::directory_iterator())
    throw SymbolReaderException("No DWARF file in " + dwarfFolder);
  return dwarfFolder + "/" + listing->path().filename().string();
}

std::string SUPSymbolProcessor::uuidString(const std::array<std::uint8_t, 16>& bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text(32, '0');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    text[2 * i] = kHex[bytes[i] >> 4];
    text[2 * i + 1] = kHex[bytes[i] & 0x0f];
  }
  return text;
}

std::string SUPSymbolProcessor::architectureName(const SymbolicationArchitecture& architecture) {
  if (architecture.is64Bit() && !architecture.isX86_64())
    return (static_cast<std::uint32_t>(architecture.cpusubtype) & 2u) ? "arm64e" : "arm64";
  return architecture.familyName();
}

std::uint64_t SUPSymbolProcessor::sourceTypeForOwner(const SymbolOwner& owner) {
  if (owner.isDsym()) return SUPSourceTypeDsym;
  if (owner.isDylib()) return SUPSourceTypeDylib;
  if (owner.isDyldSharedCache()) return SUPSourceTypeDyldSharedCache;
  if (owner.isObject()) return SUPSourceTypeStatic;
  return SUPSourceTypeUnknown;
}
const OffLimitSymbolSet& SUPSymbolProcessor::offLimitMangledSymbols() {
  static const OffLimitSymbolSet symbols{
      "__TTWOE5imojiCSo5Imoji14ImojiMatchRankS_9RankValueS_FS2_g9rankValueqq_Ss16RawRepresentable8RawValue",
      "__TTWOE5imojiSS12TagMatchRankS_9RankValueS_FS1_g9rankValueqq_Ss16RawRepresentable8RawValue",
      "__TFO8PlayKids19RawRepresentableBoxg8rawValueqq_Ss16RawRepresentable8RawValue",
  };
  return symbols;
}

void SUPSymbolProcessor::enumerateTextRegionSymbolsForOwner(const SymbolOwner& owner,
                                                            const TextSymbolVisitor& visitor) {
  const OffLimitSymbolSet& offLimit = offLimitMangledSymbols();
  owner.forEachTextSymbol([&](const SymbolInfo& symbol) {
    std::string_view mangled = symbol.mangledName.value_or(kNullSymbolName);
    std::string_view name;
    if (offLimit.find(mangled) != offLimit.end())
      name = mangled;
    else
      name = symbol.name.value_or(kNullSymbolName);
    visitor(symbol, name);
  });
}

void SUPSymbolProcessor::enumerateSymbolRangesForSymbol(const SymbolInfo& symbol, std::uint64_t base,
                                                        const SymbolRangeVisitor& visitor) {
  forEachRange(symbol, base, [&](std::uint64_t location, std::uint64_t length, std::string_view path,
                                 std::int64_t line) {
    SUPSymbolRange range;
    if (!path.empty()) range.setPath(path);
    range.setLineNumber(line);
    range.setRange({location, length});
    visitor(range);
  });
}

void SUPSymbolProcessor::enumerateSymbolOwnersAtPath(const std::string& path, const SymbolOwnerVisitor& visitor,
                                                     SymbolFileCache& cache) {
  loadCoreSymbolication(defaultMaxCoreSymbolicationVersion());
  cache.forEachSlice(path, SymbolFileCache::Decoded::kLetGo, [&](const Symbolicator& symbolicator) {
    const std::string arch = architectureName(symbolicator.architecture());
    symbolicator.forEachSymbolOwner([&](const SymbolOwner& owner) {
      std::optional<std::string> uuid;
      if (auto bytes = owner.uuidBytes()) uuid = uuidString(*bytes);
      visitor(owner, uuid, arch);
    });
  });
}

void SUPSymbolProcessor::enumerateSymbolOwnersAtPath(const std::string& path, const SymbolOwnerVisitor& visitor) {
  SymbolFileCache cache;
  enumerateSymbolOwnersAtPath(path, visitor, cache);
}

void SUPSymbolProcessor::enumerateSymbolicationDataFromFile(const std::string& path,
                                                            const SymbolicationDataVisitor& visitor,
                                                            SymbolFileCache& cache) {
  loadCoreSymbolication(defaultMaxCoreSymbolicationVersion());
  forEachOwner(executablePathForInputPath(path), cache, SymbolFileCache::Decoded::kLetGo,
               [&](const SymbolOwner& owner, const std::optional<std::string>& uuid, const std::string& arch,
                   SymbolFileFacts& facts) {
                 SliceLists lists;
                 readSlice(owner, lists, facts);
                 visitor(sourceTypeForOwner(owner), uuid, arch, lists.files, lists.symbols, lists.ranges,
                         errorForSlice(uuid));
               });
}

void SUPSymbolProcessor::enumerateSymbolicationDataFromFile(const std::string& path,
                                                            const SymbolicationDataVisitor& visitor) {
  SymbolFileCache cache;
  enumerateSymbolicationDataFromFile(path, visitor, cache);
}

std::string SUPSymbolProcessor::formattedDataVersion(std::uint64_t /*version*/, std::uint64_t sourceType,
                                                     const std::optional<std::string>& uuid, const std::string& arch,
                                                     const std::vector<std::string>& files,
                                                     const std::vector<std::string>& symbols,
                                                     const std::vector<SUPSymbolRange>& ranges) {
  // Only format version 1 exists; the requested version does not change the text.
  CSYMTextBuilder builder(ranges.size());
  for (const std::string& file : files) builder.addFileLine(file);
  for (const std::string& symbol : symbols) builder.addSymbol(symbol);
  for (const SUPSymbolRange& range : ranges)
    builder.addRangeLine(range.range().location, range.range().length, range.symbolIndex(), range.fileIndex(),
                         range.lineNumber());
  return builder.finish(sourceType, uuid, arch);
}

void SUPSymbolProcessor::enumerateFormattedDataVersion(std::uint64_t /*version*/, const std::string& path,
                                                       float maxVersion, const FormattedDataVisitor& visitor,
                                                       SymbolFileCache& cache) {
  // Only format version 1 exists; the requested version does not change the text.
  loadCoreSymbolication(maxVersion);
  const std::string file = executablePathForInputPath(path);
  forEachOwner(file, cache, SymbolFileCache::Decoded::kLetGo,
               [&](const SymbolOwner& owner, const std::optional<std::string>& uuid, const std::string& arch,
                   SymbolFileFacts& facts) {
                 CSYMTextBuilder builder(owner.sourceInfoCountHint(), csymBudgetFor(owner), owner.nameBytesHint());
                 readSlice(owner, builder, facts);
                 const std::uint64_t sourceType = sourceTypeForOwner(owner);
                 std::string data = builder.finish(sourceType, uuid, arch);
                 support::ErrorPtr error = errorForSlice(uuid);
                 if (builder.overflowed()) {
                   // Debug information made to blow up (one long path for
                   // thousands of files, say): the slice is left out.
                   console::SYLLogError("The cSYM of the {} slice of {} would be larger than {} MB: left out", arch,
                                        console::printable(path), csymBudgetFor(owner) >> 20);
                   error = support::makeError(kSymbolicationErrorDomain, 1);
                 }
                 // Another program cut the file short under us: what was
                 // read past its new end was zeros, not the file.
                 if (auto mapped = cache.machOFile(file); mapped && mapped->cutShort()) {
                   console::SYLLogError("{} was cut short while it was read: its {} slice is left out",
                                        console::printable(file), arch);
                   error = support::makeError(kSymbolicationErrorDomain, 2);
                 }
                 visitor(sourceType, uuid, arch, data, error);
               });
}

void SUPSymbolProcessor::enumerateFormattedDataVersion(std::uint64_t version, const std::string& path,
                                                       float maxVersion, const FormattedDataVisitor& visitor) {
  SymbolFileCache cache;
  enumerateFormattedDataVersion(version, path, maxVersion, visitor, cache);
}

void SUPSymbolProcessor::enumerateFormattedDataVersion(std::uint64_t version, const std::string& path,
                                                       const FormattedDataVisitor& visitor) {
  enumerateFormattedDataVersion(version, path, defaultMaxCoreSymbolicationVersion(), visitor);
}

SymbolFileFacts SUPSymbolProcessor::symbolFactsAtPath(const std::string& path, SymbolFileCache& cache) {
  loadCoreSymbolication(defaultMaxCoreSymbolicationVersion());
  const std::string file = executablePathForInputPath(path);
  if (auto known = cache.facts(file)) return *known;
  forEachOwner(file, cache, SymbolFileCache::Decoded::kKeptForConversion,
               [](const SymbolOwner& owner, const std::optional<std::string>&, const std::string&,
                  SymbolFileFacts& facts) {
                 NoText none;
                 readSlice(owner, none, facts);
               });
  return cache.facts(file).value_or(SymbolFileFacts{});
}

std::int64_t SUPSymbolProcessor::countSymbolOwnersAtPath(const std::string& path, SymbolFileCache& cache) {
  return symbolFactsAtPath(path, cache).codeSymbolCount;
}

std::int64_t SUPSymbolProcessor::countSymbolOwnersAtPath(const std::string& path) {
  SymbolFileCache cache;
  return countSymbolOwnersAtPath(path, cache);
}

bool SUPSymbolProcessor::checkForHiddenSymbolsAtPath(const std::string& path, SymbolFileCache& cache) {
  return symbolFactsAtPath(path, cache).hasHiddenSymbols;
}

bool SUPSymbolProcessor::checkForHiddenSymbolsAtPath(const std::string& path) {
  SymbolFileCache cache;
  return checkForHiddenSymbolsAtPath(path, cache);
}

bool SUPSymbolProcessor::enumerateSymbolsFromFile(const std::string& path, support::ErrorPtr* /*error*/,
                                                  const SymbolNameVisitor& visitor, SymbolFileCache& cache) {
  loadCoreSymbolication(defaultMaxCoreSymbolicationVersion());
  SymbolNames names;
  forEachOwner(path, cache, SymbolFileCache::Decoded::kLetGo,
               [&](const SymbolOwner& owner, const std::optional<std::string>&, const std::string&,
                   SymbolFileFacts& facts) { readSlice(owner, names, facts); });
  for (const std::string& name : names.distinct) visitor(name);
  return true;
}

bool SUPSymbolProcessor::enumerateSymbolsFromFile(const std::string& path, support::ErrorPtr* error,
                                                  const SymbolNameVisitor& visitor) {
  SymbolFileCache cache;
  return enumerateSymbolsFromFile(path, error, visitor, cache);
}

}  // namespace symlift::symbols
