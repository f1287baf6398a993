// What the symbol processor makes of each kind of symbol, on a reader
// described in code: the cSYM text of a slice, the same text from the raw
// lists, and the symbol names of a file.

#include "symbols/symbol_processor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/test_support.h"
#include "symbols/symbol_file_cache.h"
#include "symbols/symbolication_provider.h"

namespace symlift::testing {
namespace {

// The reader described in code. Like a real reader, it hands out views that live only for one visitor call:
// names and paths are copied for the call and overwritten afterwards, so a
// consumer that keeps a view sees garbage instead of passing by accident.

using symbols::SourceInfo;
using symbols::SymbolicationArchitecture;
using symbols::SymbolInfo;

struct FakeSource {
  std::string path;
  std::uint64_t line = 0;
  std::uint64_t address = 0;
  std::uint64_t length = 0;
};

struct FakeSymbol {
  std::optional<std::string> mangledName;
  std::optional<std::string> name;
  std::uint64_t address = 0;
  std::uint64_t length = 0;
  std::vector<FakeSource> sources;
};

// A plain C-like symbol: mangled "_name", demangled "name".
inline FakeSymbol cSymbol(const std::string& name, std::uint64_t address, std::uint64_t length,
                          std::vector<FakeSource> sources = {}) {
  return FakeSymbol{"_" + name, name, address, length, std::move(sources)};
}

inline std::array<std::uint8_t, 16> makeUUID(std::uint8_t first) {
  std::array<std::uint8_t, 16> bytes{};
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(first + i * 0x11);
  return bytes;
}

class FakeOwner : public symbols::SymbolOwner {
 public:
  std::uint64_t base = 0x100000000;
  std::optional<std::array<std::uint8_t, 16>> uuid = makeUUID(0x3f);
  bool dsym = true, dylib = false, sharedCache = false, object = false;
  std::vector<FakeSymbol> symbols;

  std::uint64_t baseAddress() const override { return base; }
  std::optional<std::array<std::uint8_t, 16>> uuidBytes() const override { return uuid; }
  bool isDsym() const override { return dsym; }
  bool isDylib() const override { return dylib; }
  bool isDyldSharedCache() const override { return sharedCache; }
  bool isObject() const override { return object; }

  void forEachTextSymbol(const std::function<void(const SymbolInfo&)>& visitor) const override {
    for (const FakeSymbol& symbol : symbols) {
      // Per-call copies, scribbled over once the call returns.
      std::optional<std::string> mangled = symbol.mangledName, name = symbol.name;
      std::vector<std::string> paths;
      for (const FakeSource& source : symbol.sources) paths.push_back(source.path);
      std::vector<SourceInfo> infos;
      for (std::size_t i = 0; i < symbol.sources.size(); ++i)
        infos.push_back({paths[i], symbol.sources[i].line, symbol.sources[i].address, symbol.sources[i].length});
      SymbolInfo info;
      if (mangled) info.mangledName = *mangled;
      if (name) info.name = *name;
      info.address = symbol.address;
      info.length = symbol.length;
      info.sourceInfos = infos;
      visitor(info);
      for (std::string* text : {mangled ? &*mangled : nullptr, name ? &*name : nullptr})
        if (text) std::fill(text->begin(), text->end(), '#');
      for (std::string& path : paths) std::fill(path.begin(), path.end(), '#');
    }
  }
};

class FakeSymbolicator : public symbols::Symbolicator {
 public:
  SymbolicationArchitecture arch{0x0100000c, 0};  // arm64
  std::vector<FakeOwner> owners;

  SymbolicationArchitecture architecture() const override { return arch; }
  void forEachSymbolOwner(const std::function<void(const symbols::SymbolOwner&)>& visitor) const override {
    for (const FakeOwner& owner : owners) visitor(owner);
  }
};

class FakeProvider : public symbols::SymbolicationProvider {
 public:
  // Path → slices; any other path cannot be opened.
  std::map<std::string, std::vector<FakeSymbolicator>> files;

  void forEachSymbolicatorWithPath(const std::string& path, symbols::SymbolFiles&,
                                   const SymbolicatorVisitor& visitor) const override {
    auto found = files.find(path);
    if (found == files.end()) return;
    for (const FakeSymbolicator& symbolicator : found->second)
      visitor(std::make_shared<const FakeSymbolicator>(symbolicator));
  }
};

// A cache of its own that reads through the fake provider.
struct FakeFiles {
  std::shared_ptr<FakeProvider> provider = std::make_shared<FakeProvider>();
  symbols::SymbolFileCache cache{provider};
};

// One slice with one owner holding the given symbols.
inline FakeSymbolicator slice(SymbolicationArchitecture arch, std::vector<FakeSymbol> symbols,
                              std::optional<std::array<std::uint8_t, 16>> uuid = makeUUID(0x3f)) {
  FakeSymbolicator symbolicator;
  symbolicator.arch = arch;
  FakeOwner owner;
  owner.uuid = uuid;
  owner.symbols = std::move(symbols);
  symbolicator.owners.push_back(std::move(owner));
  return symbolicator;
}

inline constexpr SymbolicationArchitecture kArm64{0x0100000c, 0};
inline constexpr SymbolicationArchitecture kArm64e{0x0100000c, 2};
inline constexpr SymbolicationArchitecture kX86_64{0x01000007, 3};
inline constexpr SymbolicationArchitecture kArmV7{12, 9};

using symbols::SUPSymbolProcessor;

struct Slice {
  std::uint64_t sourceType = 0;
  std::optional<std::string> uuid;
  std::string arch, text, fromLists;
  support::ErrorPtr error;
};

// Every slice's text, and the text formatted from the raw lists of the same
// slice, which must be the same.
std::vector<Slice> slicesOf(FakeFiles& files, const std::string& path, std::uint64_t version = 1) {
  std::vector<Slice> slices;
  SUPSymbolProcessor::enumerateFormattedDataVersion(
      version, path, 0.0f,
      [&](std::uint64_t type, const std::optional<std::string>& uuid, const std::string& arch, std::string& data,
          const support::ErrorPtr& error) { slices.push_back({type, uuid, arch, std::move(data), "", error}); },
      files.cache);
  std::size_t i = 0;
  SUPSymbolProcessor::enumerateSymbolicationDataFromFile(
      path,
      [&](std::uint64_t type, const std::optional<std::string>& uuid, const std::string& arch,
          const std::vector<std::string>& fileList, const std::vector<std::string>& symbols,
          const std::vector<symbols::SUPSymbolRange>& ranges, const support::ErrorPtr&) {
        for (const auto& range : ranges) {
          if (range.fileIndex() >= 0) {
            EXPECT_EQ(range.filePath(), fileList.at(range.fileIndex()));
          }
        }
        if (i < slices.size())
          slices[i++].fromLists = SUPSymbolProcessor::formattedDataVersion(1, type, uuid, arch, fileList, symbols, ranges);
      },
      files.cache);
  return slices;
}

constexpr std::uint64_t kBase = 0x100000000;
const std::string kHeader = "code_mapping\t1\tdsym\t3f5061728394a5b6c7d8e9fa0b1c2d3e\tarm64\t";

TEST(SymbolProcessor, TextOfASliceFromItsSymbols) {
  struct Case {
    const char* what;
    std::vector<FakeSymbol> symbols;
    std::string text;  // after the header's slice fields
  };
  const Case cases[] = {
      {"no code symbols", {}, "0\t0\t0\nfiles\t0\nsymbols\t0\nranges\t0\n"},
      {"records, or the symbol itself; untrusted lines; below the base",
       {cSymbol("noSource", kBase + 0x1000, 32),
        cSymbol("lines", kBase + 0x2000, 12,
                {{"/s/a.c", 99999, kBase + 0x2000, 4}, {"/s/a.c", 100000, kBase + 0x2004, 4},
                 {"/s/a.c", 0, kBase + 0x2008, 4}}),
        cSymbol("belowBase", kBase - 16, 16, {{"/s/b.c", 7, kBase - 16, 16}})},
       "2\t3\t5\nfiles\t2\n/s/a.c\n/s/b.c\nsymbols\t3\nnoSource\nlines\nbelowBase\nranges\t5\n"
       "4096\t32\t0\t-1\t-1\n8192\t4\t1\t0\t99999\n8196\t4\t1\t0\t-1\n8200\t4\t1\t0\t0\n-16\t16\t2\t1\t7\n"},
      {"symbols without a name leave no trace",
       {cSymbol("first", kBase, 8), FakeSymbol{"_x", "(null)", kBase + 0x100, 8, {{"/s/null.c", 1, kBase + 0x100, 8}}},
        FakeSymbol{std::nullopt, std::nullopt, kBase + 0x200, 8, {{"/s/none.c", 2, kBase + 0x200, 8}}},
        FakeSymbol{"_y", std::nullopt, kBase + 0x300, 8, {}}},
       "0\t1\t1\nfiles\t0\nsymbols\t1\nfirst\nranges\t1\n0\t8\t0\t-1\t-1\n"},
      {"a name twice is listed twice", {cSymbol("helper", kBase, 8), cSymbol("helper", kBase + 16, 8)},
       "0\t2\t2\nfiles\t0\nsymbols\t2\nhelper\nhelper\nranges\t2\n0\t8\t0\t-1\t-1\n16\t8\t1\t-1\t-1\n"},
      {"files once, in order of first use, without line feeds",
       {cSymbol("a", kBase, 16, {{"/s/two.c", 1, kBase, 8}, {"/s/o\nne.c\n", 2, kBase + 8, 8}}),
        cSymbol("b", kBase + 16, 16, {{"/s/one.c", 3, kBase + 16, 8}, {"/s/two.c", 4, kBase + 24, 8}})},
       "2\t2\t4\nfiles\t2\n/s/two.c\n/s/one.c\nsymbols\t2\na\nb\nranges\t4\n"
       "0\t8\t0\t0\t1\n8\t8\t0\t1\t2\n16\t8\t1\t1\t3\n24\t8\t1\t0\t4\n"},
      {"a line feed inside a name is removed, so the name cannot start a section",
       {cSymbol("ev\nil\nranges\t9", kBase, 8)},
       "0\t1\t1\nfiles\t0\nsymbols\t1\nevilranges\t9\nranges\t1\n0\t8\t0\t-1\t-1\n"},
      {"off-limit names are listed mangled",
       {FakeSymbol{"__TFO8PlayKids19RawRepresentableBoxg8rawValueqq_Ss16RawRepresentable8RawValue", "box", kBase, 8,
                   {}},
        FakeSymbol{"__Z3fooi", "foo(int)", kBase + 16, 8, {}}},
       "0\t2\t2\nfiles\t0\nsymbols\t2\n__TFO8PlayKids19RawRepresentableBoxg8rawValueqq_Ss16RawRepresentable8RawValue\n"
       "foo(int)\nranges\t2\n0\t8\t0\t-1\t-1\n16\t8\t1\t-1\t-1\n"},
  };
  for (const Case& c : cases) {
    FakeFiles files;
    files.provider->files["/in/App"] = {slice(kArm64, c.symbols)};
    const auto slices = slicesOf(files, "/in/App", 7);  // the version asked for is not the one written
    ASSERT_EQ(slices.size(), 1u) << c.what;
    EXPECT_EQ(slices[0].text, kHeader + c.text) << c.what;
    EXPECT_EQ(slices[0].fromLists, slices[0].text) << c.what;
    EXPECT_FALSE(slices[0].error) << c.what;
  }
}

TEST(SymbolProcessor, EachSliceHasItsNameKindUUIDAndLists) {
  FakeFiles files;
  auto withKind = [](symbols::SymbolicationArchitecture arch, bool dsym, bool dylib, bool cache, bool object) {
    FakeSymbolicator s = slice(arch, {cSymbol("f", kBase, 4, {{"/s/" + std::to_string(arch.cpusubtype), 1, kBase, 4}})});
    s.owners[0].dsym = dsym, s.owners[0].dylib = dylib, s.owners[0].sharedCache = cache, s.owners[0].object = object;
    return s;
  };
  files.provider->files["/in/App"] = {withKind(kArm64, true, true, true, true),
                                      withKind(kArm64e, false, true, true, true),
                                      withKind({0x0100000c, static_cast<std::int32_t>(0x80000002)}, false, false, true, true),
                                      withKind({0x0100000c, 1}, false, false, false, true),
                                      withKind(kX86_64, false, false, false, false),
                                      slice(kArmV7, {}, std::nullopt)};
  std::vector<std::string> described;
  for (const Slice& s : slicesOf(files, "/in/App")) {
    described.push_back(s.arch + " " + s.text.substr(15, s.text.find('\t', 15) - 15) + " " + s.uuid.value_or("-") +
                        (s.error ? " error " + s.error->domain : ""));
    EXPECT_EQ(s.fromLists, s.text);
  }
  const std::string uuid = "3f5061728394a5b6c7d8e9fa0b1c2d3e";
  EXPECT_EQ(described, (std::vector<std::string>{"arm64 dsym " + uuid, "arm64e dylib " + uuid,
                                                 "arm64e dyld-shared-cache " + uuid, "arm64 static " + uuid,
                                                 "x86_64 unknown " + uuid,
                                                 "armv7 dsym - error SUPSymbolicationErrorDomain"}));
}

TEST(SymbolProcessor, SymbolNamesFromFileAreDistinctAndFiltered) {
  FakeFiles files;
  files.provider->files["/in/App"] = {
      slice(kArm64, {cSymbol("main", kBase, 4), cSymbol("main", kBase + 16, 4), FakeSymbol{"_e", "", kBase + 32, 4, {}},
                     cSymbol("__copy_helper_block_e8_32s", kBase + 64, 4),
                     cSymbol("__destroy_helper_block_e8_32s", kBase + 80, 4), cSymbol("__block_global_1", kBase + 96, 4),
                     cSymbol("my__block_global", kBase + 112, 4)}),
      slice(kX86_64, {cSymbol("main", kBase, 4), cSymbol("other", kBase + 16, 4)})};
  std::multiset<std::string> names;
  EXPECT_TRUE(SUPSymbolProcessor::enumerateSymbolsFromFile(
      "/in/App", nullptr, [&](const std::string& name) { names.insert(name); }, files.cache));
  EXPECT_EQ(names, (std::multiset<std::string>{"main", "my__block_global", "other"}));
}

}  // namespace
}  // namespace symlift::testing
