// The provider on whole files: slices of fat and thin files in order, their
// architectures, owners' kinds, UUIDs and base addresses, and files that
// are not (complete) Mach-O files.

#include "symbols/dwarf/dwarf_provider.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "dwarf_builder.h"
#include "support/test_support.h"

namespace symlift::symbols::dwarf {
namespace {

using namespace testing;
using symlift::testing::TempDir;

struct SliceReport {
  std::string architecture;
  std::uint64_t base = 0;
  std::string kind;
  std::string uuid;
  std::vector<std::string> symbols;  // "name@address+length:records"
};

std::vector<SliceReport> report(const std::string& path) {
  std::vector<SliceReport> slices;
  makeDwarfSymbolicationProvider()->forEachSymbolicatorWithPath(path, [&](const Symbolicator& symbolicator) {
    int owners = 0;
    symbolicator.forEachSymbolOwner([&](const SymbolOwner& owner) {
      ++owners;
      SliceReport slice;
      slice.architecture = symbolicator.architecture().familyName();
      slice.base = owner.baseAddress();
      slice.kind = owner.isDsym() ? "dsym" : owner.isDylib() ? "dylib" : owner.isObject() ? "object" : "none";
      EXPECT_FALSE(owner.isDyldSharedCache());
      if (auto uuid = owner.uuidBytes()) slice.uuid = std::to_string((*uuid)[0]) + "." + std::to_string((*uuid)[15]);
      owner.forEachTextSymbol([&](const SymbolInfo& symbol) {
        char text[256];
        std::snprintf(text, sizeof text, "%s@%llx+%llx:%zu", symbol.name ? std::string(*symbol.name).c_str() : "-",
                      static_cast<unsigned long long>(symbol.address), static_cast<unsigned long long>(symbol.length),
                      symbol.sourceInfos.size());
        slice.symbols.push_back(text);
      });
      slices.push_back(slice);
    });
    EXPECT_EQ(owners, 1);
  });
  return slices;
}

std::string write(const TempDir& dir, const std::string& name, const std::vector<std::uint8_t>& bytes) {
  return dir.write(name, std::string(bytes.begin(), bytes.end())).string();
}

std::array<std::uint8_t, 16> uuid(std::uint8_t first, std::uint8_t last) {
  std::array<std::uint8_t, 16> value{};
  value[0] = first;
  value[15] = last;
  return value;
}

// An armv7 object file (32-bit header, 4-byte addresses) with a DWARF 2 unit.
std::vector<std::uint8_t> armv7Object() {
  AbbreviationWriter abbrev;
  auto cu = abbrev.add(dw::TAG_compile_unit, true, {});
  auto function = abbrev.add(dw::TAG_subprogram, false,
                             {{dw::AT_name, dw::FORM_string}, {dw::AT_low_pc, dw::FORM_addr},
                              {dw::AT_high_pc, dw::FORM_addr}});
  Writer info;
  UnitWriter unit(info, 2, 4, 4);
  info.uleb(cu).uleb(function).str("thumb_function").u32(0x40).u32(0x58).u8(0);
  unit.finish();
  MachOLayout layout;
  layout.is64 = false;
  layout.cputype = 12;
  layout.cpusubtype = 9;  // armv7
  layout.fileType = 0x1;  // MH_OBJECT
  layout.textSegmentAddress = 0;
  layout.textAddress = 0x40;
  layout.textSize = 0x40;
  layout.dwarf = {{"__debug_abbrev", abbrev.bytes()}, {"__debug_info", info.bytes}};
  layout.symbols = {{"_thumb_function", 0x0f, 1, 0x40}, {"_tail", 0x0f, 1, 0x70}};
  return buildMachO(layout);
}

TEST(DwarfProviderTest, ReportsEverySliceOfAFatFileInOrder) {
  MachOLayout dsym;
  dsym.uuids = {uuid(1, 2), uuid(3, 4)};  // the last one counts
  dsym.symbols = {{"_main", 0x0f, 1, 0x100001000}};
  MachOLayout dylib = dsym;
  dylib.cputype = 0x01000007;  // x86_64
  dylib.cpusubtype = 3;
  dylib.fileType = 0x6;
  dylib.uuids = {uuid(5, 6)};
  dylib.textSegmentAddress = 0;
  dylib.textAddress = 0x2000;
  dylib.symbols = {{"_entry", 0x0f, 1, 0x2010}};
  MachOLayout executable = dsym;
  executable.cpusubtype = 2;  // arm64e
  executable.fileType = 0x2;
  executable.uuids = {};
  executable.withSymbolTable = false;

  TempDir dir;
  std::string path = write(dir, "fat", buildFat({{0x0100000c, 0, buildMachO(dsym)},
                                                 {0x01000007, 3, buildMachO(dylib)},
                                                 {12, 9, armv7Object()},
                                                 {0x0100000c, 2, buildMachO(executable)}}));
  auto slices = report(path);
  ASSERT_EQ(slices.size(), 4u);
  EXPECT_EQ(slices[0].architecture, "arm64");
  EXPECT_EQ(slices[0].kind, "dsym");
  EXPECT_EQ(slices[0].uuid, "3.4");
  EXPECT_EQ(slices[0].base, 0x100000000u);
  EXPECT_EQ(slices[0].symbols, std::vector<std::string>{"main@100001000+1000:0"});
  EXPECT_EQ(slices[1].architecture, "x86_64");
  EXPECT_EQ(slices[1].kind, "dylib");
  EXPECT_EQ(slices[1].base, 0u);
  EXPECT_EQ(slices[1].symbols, std::vector<std::string>{"entry@2010+ff0:0"});
  EXPECT_EQ(slices[2].architecture, "armv7");
  EXPECT_EQ(slices[2].kind, "object");
  EXPECT_EQ(slices[2].uuid, "");
  EXPECT_EQ(slices[2].symbols, (std::vector<std::string>{"thumb_function@40+18:0", "tail@70+10:0"}));
  EXPECT_EQ(slices[3].architecture, "arm64e");
  EXPECT_EQ(slices[3].kind, "none");
  EXPECT_TRUE(slices[3].symbols.empty());
}

TEST(DwarfProviderTest, FilesThatAreNotWholeMachOImages) {
  TempDir dir;
  MachOLayout layout;
  layout.symbols = {{"_main", 0x0f, 1, 0x100001000}};
  auto thin = buildMachO(layout);

  // A thin file is one slice.
  EXPECT_EQ(report(write(dir, "thin", thin)).size(), 1u);
  // Missing, empty, text, a bare magic number: no slices.
  EXPECT_TRUE(report((dir.path() / "missing").string()).empty());
  EXPECT_TRUE(report(dir.str()).empty());
  EXPECT_TRUE(report(write(dir, "empty", {})).empty());
  EXPECT_TRUE(report(write(dir, "text", {'h', 'e', 'l', 'l', 'o', '\n', 0, 0, 0, 0, 0, 0})).empty());
  EXPECT_TRUE(report(write(dir, "magic", {0xcf, 0xfa, 0xed, 0xfe})).empty());
  // Every truncation of a thin and of a fat file is read without a fault.
  auto fat = buildFat({{0x0100000c, 0, thin}, {12, 9, armv7Object()}});
  for (const auto* bytes : {&thin, &fat}) {
    for (std::size_t size = 0; size < bytes->size(); size += 3) {
      std::vector<std::uint8_t> cut(bytes->begin(), bytes->begin() + static_cast<std::ptrdiff_t>(size));
      for (const SliceReport& slice : report(write(dir, "cut", cut)))
        for (const std::string& symbol : slice.symbols) EXPECT_EQ(symbol.rfind("main@", 0), 0u) << symbol;
    }
  }
  // A fat header whose slice lies outside the file gives no slice for it.
  auto broken = fat;
  broken[8 + 20 + 8] = 0x7f;  // second slice's offset, most significant byte
  EXPECT_EQ(report(write(dir, "broken", broken)).size(), 1u);
}

TEST(DwarfProviderTest, ByteSwappedImagesHaveAnArchitectureButNoSymbols) {
  MachOLayout layout;
  layout.symbols = {{"_main", 0x0f, 1, 0x100001000}};
  auto bytes = buildMachO(layout);
  // Swap the header's words to big-endian.
  for (std::size_t word = 0; word < 8; ++word)
    std::reverse(bytes.begin() + static_cast<std::ptrdiff_t>(word * 4),
                 bytes.begin() + static_cast<std::ptrdiff_t>(word * 4 + 4));
  TempDir dir;
  auto slices = report(write(dir, "swapped", bytes));
  ASSERT_EQ(slices.size(), 1u);
  EXPECT_EQ(slices[0].architecture, "arm64");
  EXPECT_TRUE(slices[0].symbols.empty());
}

TEST(DwarfProviderTest, FamilyNamesComeFromThePublishedTable) {
  EXPECT_EQ((SymbolicationArchitecture{0x01000007, 3}).familyName(), "x86_64");
  EXPECT_EQ((SymbolicationArchitecture{7, 3}).familyName(), "i386");
  EXPECT_EQ((SymbolicationArchitecture{12, 11}).familyName(), "armv7s");
  EXPECT_EQ((SymbolicationArchitecture{12, 12}).familyName(), "armv7k");
  EXPECT_EQ((SymbolicationArchitecture{0x4242, 0}).familyName(), "unknown");
}

}  // namespace
}  // namespace symlift::symbols::dwarf
