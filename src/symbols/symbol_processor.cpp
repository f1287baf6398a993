#include "symbols/symbol_processor.h"

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <unordered_map>

#include "symbols/csym_text.h"
#include "symbols/dwarf/dwarf_provider.h"
#include "symbols/symbolication_proxy.h"

namespace symlift::symbols {

namespace {

namespace fs = std::filesystem;

// Lines above this are not trusted and written as unknown.
constexpr std::uint64_t kMaximumLineNumber = 99999;
constexpr std::string_view kBlockHelperPrefixes[] = {"__copy_helper_block", "__destroy_helper_block",
                                                     "__block_global"};

struct ProviderSlot {
  std::mutex mutex;
  std::shared_ptr<SymbolicationProvider> replacement;
  std::shared_ptr<SymbolicationProvider> reader;
};

ProviderSlot& providerSlot() {
  static ProviderSlot slot;
  return slot;
}

// The lists of one slice while it is collected. Paths are de-duplicated
// through a map looked up by view; its keys own the (line-feed free) paths
// that the ranges point at, and node-based storage keeps them in place.
struct SliceLists {
  std::vector<std::string> files;
  std::vector<std::string> symbols;
  std::vector<SUPSymbolRange> ranges;
  std::unordered_map<std::string, std::int64_t, TransparentStringHash, std::equal_to<>> fileIndexByPath;

  std::int64_t fileIndexFor(std::string_view path, SUPSymbolRange& range) {
    std::string storage;
    path = pathWithoutLineFeeds(path, storage);
    auto found = fileIndexByPath.find(path);
    if (found == fileIndexByPath.end()) {
      found = fileIndexByPath.emplace(std::string(path), static_cast<std::int64_t>(files.size())).first;
      files.emplace_back(path);
    }
    range.setPath(std::string_view(found->first));
    return found->second;
  }
};

using SliceVisitor = std::function<void(std::uint64_t sourceType, const std::optional<std::string>& uuid,
                                        const std::string& arch, SliceLists& lists, const support::ErrorPtr& error)>;

// Collects every slice of the (already resolved) path, one owner at a time.
void collectSlices(const std::string& path, const SliceVisitor& visitor) {
  SUPSymbolProcessor::enumerateSymbolOwnersAtPath(
      path, [&](const SymbolOwner& owner, const std::optional<std::string>& uuid, const std::string& arch) {
        const std::uint64_t base = owner.baseAddress();
        SliceLists lists;
        SUPSymbolProcessor::enumerateTextRegionSymbolsForOwner(
            owner, [&](const SymbolInfo& symbol, std::string_view name) {
              if (name == kNullSymbolName) return;
              const auto symbolIndex = static_cast<std::int64_t>(lists.symbols.size());
              lists.symbols.emplace_back(name);
              SUPSymbolProcessor::enumerateSymbolRangesForSymbol(symbol, base, [&](SUPSymbolRange& range) {
                range.setSymbolIndex(symbolIndex);
                if (auto rangePath = range.path()) range.setFileIndex(lists.fileIndexFor(*rangePath, range));
                lists.ranges.push_back(range);
              });
            });
        support::ErrorPtr error;
        if (!uuid || uuid->empty()) error = support::makeError(kSymbolicationErrorDomain, 0);
        visitor(SUPSymbolProcessor::sourceTypeForOwner(owner), uuid, arch, lists, error);
      });
}

bool isBlockHelper(std::string_view name) {
  return std::any_of(std::begin(kBlockHelperPrefixes), std::end(kBlockHelperPrefixes),
                     [&](std::string_view prefix) { return name.starts_with(prefix); });
}

}  // namespace

std::shared_ptr<SymbolicationProvider> SUPSymbolProcessor::symbolicationProvider() {
  ProviderSlot& slot = providerSlot();
  std::lock_guard lock(slot.mutex);
  if (slot.replacement) return slot.replacement;
  if (!slot.reader) slot.reader = dwarf::makeDwarfSymbolicationProvider();
  return slot.reader;
}

void SUPSymbolProcessor::setSymbolicationProviderForTesting(std::shared_ptr<SymbolicationProvider> provider) {
  ProviderSlot& slot = providerSlot();
  std::lock_guard lock(slot.mutex);
  slot.replacement = std::move(provider);
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

void SUPSymbolProcessor::enumerateSymbolOwnersAtPath(const std::string& path, const SymbolOwnerVisitor& visitor) {
  loadCoreSymbolication(defaultMaxCoreSymbolicationVersion());
  std::shared_ptr<SymbolicationProvider> provider = symbolicationProvider();
  provider->forEachSymbolicatorWithPath(path, [&](const Symbolicator& symbolicator) {
    const std::string arch = architectureName(symbolicator.architecture());
    symbolicator.forEachSymbolOwner([&](const SymbolOwner& owner) {
      std::optional<std::string> uuid;
      if (auto bytes = owner.uuidBytes()) uuid = uuidString(*bytes);
      visitor(owner, uuid, arch);
    });
  });
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
  for (const SourceInfo& info : symbol.sourceInfos) {
    SUPSymbolRange range;
    if (!info.path.empty()) range.setPath(info.path);
    if (info.line <= kMaximumLineNumber) range.setLineNumber(static_cast<std::int64_t>(info.line));
    range.setRange({info.address - base, info.length});
    visitor(range);
  }
  if (symbol.sourceInfos.empty()) {
    SUPSymbolRange range;
    range.setRange({symbol.address - base, symbol.length});
    visitor(range);
  }
}

void SUPSymbolProcessor::enumerateSymbolicationDataFromFile(const std::string& path,
                                                            const SymbolicationDataVisitor& visitor) {
  loadCoreSymbolication(defaultMaxCoreSymbolicationVersion());
  collectSlices(executablePathForInputPath(path),
                [&](std::uint64_t sourceType, const std::optional<std::string>& uuid, const std::string& arch,
                    SliceLists& lists, const support::ErrorPtr& error) {
                  visitor(sourceType, uuid, arch, lists.files, lists.symbols, lists.ranges, error);
                });
}

std::string SUPSymbolProcessor::formattedDataVersion(std::uint64_t /*version*/, std::uint64_t sourceType,
                                                     const std::optional<std::string>& uuid, const std::string& arch,
                                                     const std::vector<std::string>& files,
                                                     const std::vector<std::string>& symbols,
                                                     const std::vector<SUPSymbolRange>& ranges) {
  // Only format version 1 exists; the requested version does not change the text.
  return formatCSYMText(sourceType, uuid, arch, files, symbols, ranges);
}

void SUPSymbolProcessor::enumerateFormattedDataVersion(std::uint64_t /*version*/, const std::string& path,
                                                       float maxVersion, const FormattedDataVisitor& visitor) {
  // Only format version 1 exists; the requested version does not change the
  // text. The text is the one formattedDataVersion writes for the lists of
  // enumerateSymbolicationDataFromFile, built as the symbols come instead of
  // through a list of range objects (a large slice has millions of ranges).
  loadCoreSymbolication(maxVersion);
  enumerateSymbolOwnersAtPath(
      executablePathForInputPath(path),
      [&](const SymbolOwner& owner, const std::optional<std::string>& uuid, const std::string& arch) {
        const std::uint64_t base = owner.baseAddress();
        CSYMTextBuilder builder(owner.sourceInfoCountHint());
        enumerateTextRegionSymbolsForOwner(owner, [&](const SymbolInfo& symbol, std::string_view name) {
          if (name == kNullSymbolName) return;
          const std::int64_t symbolIndex = builder.addSymbol(name);
          // The same ranges enumerateSymbolRangesForSymbol hands out.
          for (const SourceInfo& info : symbol.sourceInfos) {
            std::optional<std::string_view> rangePath;
            if (!info.path.empty()) rangePath = info.path;
            const std::int64_t line = info.line <= kMaximumLineNumber ? static_cast<std::int64_t>(info.line) : -1;
            builder.addRange(info.address - base, info.length, symbolIndex, rangePath, line);
          }
          if (symbol.sourceInfos.empty())
            builder.addRange(symbol.address - base, symbol.length, symbolIndex, std::nullopt, -1);
        });
        support::ErrorPtr error;
        if (!uuid || uuid->empty()) error = support::makeError(kSymbolicationErrorDomain, 0);
        std::string data = builder.finish(sourceTypeForOwner(owner), uuid, arch);
        visitor(sourceTypeForOwner(owner), uuid, arch, data, error);
      });
}

void SUPSymbolProcessor::enumerateFormattedDataVersion(std::uint64_t version, const std::string& path,
                                                       const FormattedDataVisitor& visitor) {
  enumerateFormattedDataVersion(version, path, defaultMaxCoreSymbolicationVersion(), visitor);
}

std::int64_t SUPSymbolProcessor::countSymbolOwnersAtPath(const std::string& path) {
  loadCoreSymbolication(defaultMaxCoreSymbolicationVersion());
  std::int64_t count = 0;
  enumerateSymbolOwnersAtPath(executablePathForInputPath(path),
                              [&](const SymbolOwner& owner, const std::optional<std::string>&, const std::string&) {
                                owner.forEachTextSymbol([&](const SymbolInfo&) { ++count; });
                              });
  return count;
}

bool SUPSymbolProcessor::checkForHiddenSymbolsAtPath(const std::string& path) {
  loadCoreSymbolication(defaultMaxCoreSymbolicationVersion());
  bool found = false;
  enumerateSymbolOwnersAtPath(executablePathForInputPath(path),
                              [&](const SymbolOwner& owner, const std::optional<std::string>&, const std::string&) {
                                enumerateTextRegionSymbolsForOwner(owner, [&](const SymbolInfo&, std::string_view name) {
                                  if (name.find(kHiddenSymbolMarker) != std::string_view::npos) found = true;
                                });
                              });
  return found;
}

bool SUPSymbolProcessor::enumerateSymbolsFromFile(const std::string& path, support::ErrorPtr* /*error*/,
                                                  const SymbolNameVisitor& visitor) {
  loadCoreSymbolication(defaultMaxCoreSymbolicationVersion());
  std::unordered_set<std::string, TransparentStringHash, std::equal_to<>> names;
  enumerateSymbolOwnersAtPath(path, [&](const SymbolOwner& owner, const std::optional<std::string>&,
                                        const std::string&) {
    enumerateTextRegionSymbolsForOwner(owner, [&](const SymbolInfo&, std::string_view name) {
      if (name.empty() || name == kNullSymbolName || isBlockHelper(name)) return;
      if (names.find(name) == names.end()) names.emplace(name);
    });
  });
  for (const std::string& name : names) visitor(name);
  return true;
}

}  // namespace symlift::symbols
