#pragma once
// A symbolication reader described in code, so that tests can pin down
// exactly what the symbol processor makes of each kind of symbol.
//
// Like a real reader, it hands out views that live only for one visitor call:
// names and paths are copied for the call and overwritten afterwards, so a
// consumer that keeps a view sees garbage instead of passing by accident.

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "symbols/symbol_file_cache.h"
#include "symbols/symbolication_provider.h"

namespace symlift::testing {

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

}  // namespace symlift::testing
