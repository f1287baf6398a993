// The provider on whole files: the slices of a fat file in order, their
// architectures, owners' kinds, UUIDs and base addresses; and the damage it
// reports, and how.

#include "symbols/dwarf/dwarf_provider.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "dispatch/thread_pool.h"
#include "dwarf_builder.h"
#include "support/captured_output.h"
#include "support/diagnostics.h"
#include "support/test_support.h"
#include "symbols/symbol_file_cache.h"

namespace symlift::symbols::dwarf {
namespace {

using namespace testing;
using symlift::testing::TempDir;

struct RecordingSink final : support::DiagnosticsSink {
  std::mutex mutex;
  std::vector<std::string> lines;
  void report(const support::Diagnostic& d) override {
    std::lock_guard<std::mutex> guard(mutex);
    lines.push_back(support::ConsoleDiagnosticsSink::lineFor(d));
  }
};

// Per slice: "arch kind uuid[0].uuid[15] @base: name@address+length:records ..."
// A cache of its own: the tests rewrite files in place.
std::vector<std::string> report(const std::string& path, support::DiagnosticsSink& sink) {
  dispatch::ThreadPool pool;
  SymbolFileCache files(pool, sink);
  std::vector<std::string> slices;
  makeDwarfSymbolicationProvider()->forEachSymbolicatorWithPath(path, files, [&](const auto& symbolicator) {
    symbolicator->forEachSymbolOwner([&](const SymbolOwner& owner) {
      EXPECT_FALSE(owner.isDyldSharedCache());
      auto uuid = owner.uuidBytes();
      std::string text = symbolicator->architecture().familyName() + " " +
                         (owner.isDsym() ? "dsym" : owner.isDylib() ? "dylib" : owner.isObject() ? "object" : "none") +
                         " " + (uuid ? std::to_string((*uuid)[0]) + "." + std::to_string((*uuid)[15]) : "-") + " @" +
                         std::to_string(owner.baseAddress()) + ":";
      owner.forEachTextSymbol([&](const SymbolInfo& symbol) {
        char item[256];
        std::snprintf(item, sizeof item, " %s@%llx+%llx:%zu", symbol.name ? std::string(*symbol.name).c_str() : "-",
                      static_cast<unsigned long long>(symbol.address), static_cast<unsigned long long>(symbol.length),
                      symbol.sourceInfos.size());
        text += item;
      });
      slices.push_back(text);
    });
  });
  return slices;
}

std::vector<std::string> report(const std::string& path) {
  RecordingSink sink;
  return report(path, sink);
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
                             {{dw::AT_name, dw::FORM_string}, {dw::AT_low_pc, dw::FORM_addr}, {dw::AT_high_pc, dw::FORM_addr}});
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
  EXPECT_EQ(report(path), (std::vector<std::string>{"arm64 dsym 3.4 @4294967296: main@100001000+1000:0",
                                                    "x86_64 dylib 5.6 @0: entry@2010+ff0:0",
                                                    "armv7 object - @0: thumb_function@40+18:0 tail@70+10:0",
                                                    "arm64e none - @4294967296:"}));
}

// A one-unit arm64 dSYM whose unit holds a DIE of an unknown form.
std::vector<std::uint8_t> damagedDsym(std::uint64_t* oddDie = nullptr,
                                      std::vector<std::uint8_t>* lineProgram = nullptr) {
  AbbreviationWriter abbrev;
  auto cu = abbrev.add(dw::TAG_compile_unit, true, {{dw::AT_stmt_list, dw::FORM_sec_offset}});
  auto good = abbrev.add(dw::TAG_subprogram, false,
                         {{dw::AT_name, dw::FORM_string}, {dw::AT_low_pc, dw::FORM_addr}, {dw::AT_high_pc, dw::FORM_data1}});
  auto odd = abbrev.add(dw::TAG_subprogram, false, {{dw::AT_name, 0x7f}});
  Writer info;
  UnitWriter unit(info, 4, 4, 8);
  info.uleb(cu).u32(0).uleb(good).str("kept").u64(0x100001000).u8(8);
  const std::uint64_t oddOffset = info.size();
  info.uleb(odd).str("unknowable").u8(0);
  unit.finish();
  LineProgram lines(4);
  lines.files = {{"a.c", 0}};
  lines.setAddress(0x100001000).copy().advancePc(8).endSequence().op(2);  // advance_pc without its operand
  const std::vector<std::uint8_t> program = lines.bytes();
  MachOLayout layout;
  layout.dwarf = {{"__debug_abbrev", abbrev.bytes()}, {"__debug_info", info.bytes}, {"__debug_line", program}};
  if (oddDie) *oddDie = oddOffset;
  if (lineProgram) *lineProgram = program;
  return buildMachO(layout);
}

TEST(DwarfProviderTest, DamageIsReportedWithFileSliceSectionAndOffset) {
  std::uint64_t oddDie = 0;
  std::vector<std::uint8_t> program;
  TempDir dir;
  const std::string path = write(dir, "damaged", damagedDsym(&oddDie, &program));
  const std::string edge = (symlift::testing::fixturesDir() / "edge/command-past-end").string();

  RecordingSink sink;
  EXPECT_EQ(report(path, sink), std::vector<std::string>{"arm64 dsym - @4294967296: kept@100001000+8:1"});
  report(edge, sink);
  EXPECT_EQ(sink.lines,
            (std::vector<std::string>{
                fmt::format("Skipped the rest of a unit, from a DIE with an unknown form (0x7f) in arm64 __debug_info "
                            "at offset {:#x} of {}", oddDie, path),
                fmt::format("Skipped the rest of a line program, cut short inside an opcode in arm64 __debug_line at "
                            "offset {:#x} of {}", program.size() - 1, path),
                "Skipped a load command (type 0x1b, size 4096) running past the end of the file in load commands at "
                "offset 0x38 of " + edge}))
      << ::testing::PrintToString(sink.lines);
}

// The next slice is read during a visit, yet each slice's damage is
// reported just before its own visit; a visitor that throws stops the walk
// and leaves no read running.
TEST(DwarfProviderTest, SlicesReadAheadReportInOrderAndStopWithAThrowingVisitor) {
  std::vector<std::uint8_t> arm64 = damagedDsym();
  std::vector<std::uint8_t> x86 = arm64;
  x86[4] = 0x07;  // cputype x86_64; the arm64 subtype (0) reads as x86_64's "all"
  TempDir dir;
  const std::string path = write(dir, "fat", buildFat({{0x0100000c, 0, arm64}, {0x01000007, 0, x86}}));

  struct LoggingSink final : support::DiagnosticsSink {
    std::vector<std::string>& log;
    explicit LoggingSink(std::vector<std::string>& l) : log(l) {}
    void report(const support::Diagnostic& d) override { log.push_back(d.section); }
  };
  for (std::size_t throwAt : {std::size_t{99}, std::size_t{0}}) {
    std::vector<std::string> log;
    LoggingSink sink(log);
    dispatch::ThreadPool pool;
    SymbolFileCache files(pool, sink);
    std::size_t visits = 0;
    auto walk = [&] {
      makeDwarfSymbolicationProvider()->forEachSymbolicatorWithPath(path, files, [&](const auto& symbolicator) {
        if (visits++ == throwAt) throw std::runtime_error("visitor failed");
        log.push_back("visit " + symbolicator->architecture().familyName());
      });
    };
    if (throwAt == 0) {
      EXPECT_THROW(walk(), std::runtime_error);
      EXPECT_EQ(log, (std::vector<std::string>{"arm64 __debug_info", "arm64 __debug_line"}));
    } else {
      walk();
      EXPECT_EQ(log, (std::vector<std::string>{"arm64 __debug_info", "arm64 __debug_line", "visit arm64",
                                               "x86_64 __debug_info", "x86_64 __debug_line", "visit x86_64"}));
    }
  }
}

}  // namespace
}  // namespace symlift::symbols::dwarf
