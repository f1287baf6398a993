// The reader on images assembled in code: the same small program written
// with each DWARF version and format, every attribute form, range lists,
// name lookup through references, line programs, and the symbol table.
//
// Valid but hostile DWARF: the reader's work and memory stay linear in the
// input, whatever the extents and paths say. (Times and memory of the
// full-size inputs are measured by hand: set SYMLIFT_HOSTILE_OUT to a folder
// and the inputs are also written there as dSYM bundles.)

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "dwarf_builder.h"
#include "symbols/dwarf/dwarf_forms.h"
#include "symbols/dwarf/image_symbols.h"

namespace symlift::symbols::dwarf {
namespace {

using namespace testing;

constexpr std::uint64_t kText = 0x100001000;

std::string render(const ImageSymbols& symbols) {
  std::string text;
  std::size_t index = 0;
  symbols.forEachSymbolSources([&](const ImageSymbol& symbol, std::span<const SourceRecord> records) {
    text += fmt::format("{:x}+{:x} {} | {}\n", symbol.address - kText, symbol.length, symbol.mangledName.value_or("-"),
                        symbol.name.value_or("-"));
    // A walk that starts at this symbol makes what the walk from the first does.
    const std::vector<SourceRecord> alone = symbols.sourcesOf(index++);
    EXPECT_TRUE(std::equal(records.begin(), records.end(), alone.begin(), alone.end(),
                           [](const SourceRecord& a, const SourceRecord& b) {
                             return a.address == b.address && a.length == b.length && a.path == b.path &&
                                    a.line == b.line;
                           }))
        << "symbol " << index - 1;
    for (const SourceRecord& record : records) {
      const SourceInfo source = symbols.source(record);
      text += fmt::format("  {:x}+{:x} {}:{}\n", source.address - kText, source.length, source.path, source.line);
    }
  });
  return text;
}

// Reads the symbols of a thin image.
ImageSymbols symbolsOf(const std::vector<std::uint8_t>& bytes) {
  auto images = macho::readMachOLayout(macho::Bytes(bytes)).images;
  return images.empty() ? ImageSymbols{} : readImageSymbols(images.front());
}

struct Sections {
  AbbreviationWriter abbrev;
  Writer info;
  StringSection str;
  StringSection lineStr;
  Writer strOffsets;
  Writer addr;
  Writer ranges;
  Writer rnglists;
  std::vector<std::uint8_t> line;

  MachOLayout layout(std::vector<TableEntry> symbols = {}) const {
    MachOLayout result;
    result.dwarf = {{"__debug_abbrev", abbrev.bytes()},    {"__debug_info", info.bytes},
                    {"__debug_str", str.bytes()},          {"__debug_line", line},
                    {"__debug_line_str", lineStr.bytes()}, {"__debug_str_offs", strOffsets.bytes},
                    {"__debug_addr", addr.bytes},          {"__debug_ranges", ranges.bytes},
                    {"__debug_rnglists", rnglists.bytes}};
    result.symbols = std::move(symbols);
    return result;
  }
};

// The line program every version of the small program shares: rows that
// merge, a row that spans two functions, a header file in a relative
// include folder, an absolute path, a dead-stripped sequence at address 0.
void writeLines(LineProgram& lines, unsigned firstFile) {
  lines.setAddress(kText).setFile(firstFile).advanceLine(2).copy();     // 0x00 a.c:3
  lines.special(4, 1);                                                    // 0x04 a.c:4
  lines.special(4, 0);                                                    // 0x08 a.c:4 (merges)
  lines.setFile(firstFile + 1).advanceLine(6).special(4, 0);              // 0x0c inc.h:10
  lines.setFile(firstFile).advanceLine(-5).special(4, 0);                 // 0x10 a.c:5
  lines.constAddPc().special(0, 2);                                       // 0x21 a.c:7
  lines.fixedAdvancePc(0x1f).setFile(firstFile + 2).advanceLine(13).copy();  // 0x40 x.h:20
  lines.advancePc(0x10).endSequence();                                    // 0x50
  lines.setAddress(0).setFile(firstFile).copy().advancePc(0x20).endSequence();
  lines.setAddress(kText + 0x80).setFile(firstFile).advanceLine(49).copy().advancePc(8).endSequence();
}

const char* const kSmallProgram =
    "0+20 main | main\n"
    "  0+4 /src/a.c:3\n"
    "  4+8 /src/a.c:4\n"
    "  c+4 /src/include/inc.h:10\n"
    "  10+10 /src/a.c:5\n"
    // Two address ranges: two symbols of one name; the row at 0x21 is
    // clipped at the end of the first.
    "20+10 __ZN3foo3barEv | foo::bar()\n"
    "  20+1 /src/a.c:5\n"
    "  21+f /src/a.c:7\n"
    "30+20 __ZN3foo3barEv | foo::bar()\n"
    "  30+10 /src/a.c:7\n"
    "  40+10 /abs/x.h:20\n"
    "80+f80 _helper | helper\n"
    "  80+8 /src/a.c:50\n";

// main (a name only), foo::bar (a linkage name on its declaration, code
// through DW_AT_specification) and a symbol-table-only helper, in DWARF 2
// to 4 with the forms each version has.
std::vector<std::uint8_t> smallProgramV2to4(std::uint16_t version, unsigned offsetSize, Sections& s) {
  const unsigned stmtForm = version >= 4 ? dw::FORM_sec_offset : dw::FORM_data4;
  auto cu = s.abbrev.add(dw::TAG_compile_unit, true,
                         {{dw::AT_name, dw::FORM_strp}, {dw::AT_comp_dir, dw::FORM_string},
                          {dw::AT_stmt_list, stmtForm}, {dw::AT_low_pc, dw::FORM_addr}});
  auto function = s.abbrev.add(dw::TAG_subprogram, false,
                               {{dw::AT_low_pc, dw::FORM_addr},
                                {dw::AT_high_pc, version >= 4 ? dw::FORM_data4 : dw::FORM_addr},
                                {dw::AT_name, dw::FORM_strp}});
  auto type = s.abbrev.add(dw::TAG_class_type, true, {{dw::AT_name, dw::FORM_string}});
  auto declaration = s.abbrev.add(dw::TAG_subprogram, false,
                                  {{dw::AT_name, dw::FORM_string},
                                   {version >= 4 ? dw::AT_linkage_name : dw::AT_MIPS_linkage_name, dw::FORM_strp},
                                   {dw::AT_declaration, dw::FORM_flag}});
  auto definitionWithRanges = s.abbrev.add(dw::TAG_subprogram, false,
                                           {{dw::AT_specification, dw::FORM_ref4}, {dw::AT_ranges, stmtForm}});
  auto definition = s.abbrev.add(dw::TAG_subprogram, false,
                                 {{dw::AT_specification, dw::FORM_ref4},
                                  {dw::AT_low_pc, dw::FORM_addr},
                                  {dw::AT_high_pc, dw::FORM_addr}});

  LineProgram lines(version, offsetSize);
  lines.directories = {"include"};
  lines.files = {{"a.c", 0}, {"inc.h", 1}, {"/abs/x.h", 0}};
  writeLines(lines, 1);
  s.line = lines.bytes();

  UnitWriter unit(s.info, version, offsetSize, 8);
  Writer& w = unit.info();
  w.uleb(cu);
  unit.offset(s.str.add("a.c"));
  w.str("/src");
  w.fixed(version >= 4 ? offsetSize : 4, 0);
  w.u64(kText);
  w.uleb(function).u64(kText);
  if (version >= 4) w.u32(0x20);
  else w.u64(kText + 0x20);
  unit.offset(s.str.add("main"));
  w.uleb(type).str("foo");
  std::uint64_t declarationOffset = unit.here();
  w.uleb(declaration).str("bar");
  unit.offset(s.str.add("_ZN3foo3barEv"));
  w.u8(1);
  w.u8(0);  // end of foo's children
  if (version >= 3) {
    // Ranges relative to the unit's base, then a base address selection.
    w.uleb(definitionWithRanges).u32(declarationOffset);
    w.fixed(version >= 4 ? offsetSize : 4, s.ranges.size());
    s.ranges.u64(0x20).u64(0x30).u64(~0ull).u64(kText + 0x30).u64(0).u64(0x20).u64(0).u64(0);
  } else {
    // DWARF 2 has no range lists: two definitions of one declaration.
    w.uleb(definition).u32(declarationOffset).u64(kText + 0x20).u64(kText + 0x30);
    w.uleb(definition).u32(declarationOffset).u64(kText + 0x30).u64(kText + 0x50);
  }
  w.u8(0);
  unit.finish();
  return buildMachO(s.layout({{"_helper", 0x0e, 1, kText + 0x80}}));
}

// The same program in DWARF 5: indexed strings and addresses, line_strp
// paths, a range list by index, files numbered from 0.
std::vector<std::uint8_t> smallProgramV5(unsigned offsetSize, Sections& s) {
  auto cu = s.abbrev.add(dw::TAG_compile_unit, true,
                         {{dw::AT_name, dw::FORM_strx1}, {dw::AT_comp_dir, dw::FORM_line_strp},
                          {dw::AT_stmt_list, dw::FORM_sec_offset}, {dw::AT_low_pc, dw::FORM_addrx},
                          // The bases come after the attributes that need them.
                          {dw::AT_str_offsets_base, dw::FORM_sec_offset}, {dw::AT_addr_base, dw::FORM_sec_offset},
                          {dw::AT_rnglists_base, dw::FORM_sec_offset}});
  auto function = s.abbrev.add(dw::TAG_subprogram, false,
                               {{dw::AT_low_pc, dw::FORM_addrx1}, {dw::AT_high_pc, dw::FORM_data4},
                                {dw::AT_name, dw::FORM_strx2}});
  auto declaration = s.abbrev.add(dw::TAG_subprogram, false,
                                  {{dw::AT_name, dw::FORM_strx3}, {dw::AT_linkage_name, dw::FORM_strx},
                                   {dw::AT_declaration, dw::FORM_flag_present}});
  auto definition = s.abbrev.add(dw::TAG_subprogram, false,
                                 {{dw::AT_specification, dw::FORM_ref_udata}, {dw::AT_ranges, dw::FORM_rnglistx}});

  LineProgram lines(5, offsetSize);
  lines.lineStrings = &s.lineStr;
  lines.directories = {"/src", "include"};
  lines.files = {{"a.c", 0}, {"inc.h", 1}, {"/abs/x.h", 0}};
  writeLines(lines, 0);
  s.line = lines.bytes();

  // .debug_str_offsets and .debug_addr, each with its header.
  const std::uint64_t strBase = offsetSize == 8 ? 16 : 8;
  if (offsetSize == 8) s.strOffsets.u32(0xffffffffu).u64(0);
  else s.strOffsets.u32(0);
  s.strOffsets.u16(5).u16(0);
  for (const char* text : {"a.c", "main", "bar", "_ZN3foo3barEv"}) s.strOffsets.fixed(offsetSize, s.str.add(text));
  const std::uint64_t addrBase = 8;
  s.addr.u32(0).u16(5).u8(8).u8(0).u64(kText).u64(kText + 0x20).u64(kText + 0x30);
  // .debug_rnglists: header, offset table, one list.
  const std::uint64_t rnglistsBase = offsetSize == 8 ? 20 : 12;
  if (offsetSize == 8) s.rnglists.u32(0xffffffffu).u64(0);
  else s.rnglists.u32(0);
  s.rnglists.u16(5).u8(8).u8(0).u32(1).fixed(offsetSize, offsetSize);
  s.rnglists.u8(3).uleb(1).uleb(0x10);              // startx_length
  s.rnglists.u8(1).uleb(2).u8(4).uleb(0).uleb(0x20);  // base_addressx, offset_pair
  s.rnglists.u8(0);
  // Unit lengths of the three headers.
  for (Writer* section : {&s.strOffsets, &s.rnglists}) {
    if (offsetSize == 8) section->patch(4, 8, section->size() - 12);
    else section->patch(0, 4, section->size() - 4);
  }
  s.addr.patch(0, 4, s.addr.size() - 4);

  UnitWriter unit(s.info, 5, offsetSize, 8);
  Writer& w = unit.info();
  w.uleb(cu).u8(0);
  unit.offset(s.lineStr.add("/src"));
  unit.offset(0);
  w.uleb(0);
  unit.offset(strBase);
  unit.offset(addrBase);
  unit.offset(rnglistsBase);
  w.uleb(function).u8(0).u32(0x20).u16(1);
  std::uint64_t declarationOffset = unit.here();
  w.uleb(declaration).fixed(3, 2).uleb(3);
  w.uleb(definition).uleb(declarationOffset).uleb(0);
  w.u8(0);
  unit.finish();
  return buildMachO(s.layout({{"_helper", 0x0e, 1, kText + 0x80}}));
}

TEST(ImageSymbolsTest, ReadsTheSameProgramInEveryDwarfVersionAndFormat) {
  for (std::uint16_t version : {2, 3, 4, 5}) {
    for (unsigned offsetSize : {4u, 8u}) {
      SCOPED_TRACE("DWARF " + std::to_string(version) + (offsetSize == 8 ? " 64-bit" : " 32-bit"));
      Sections sections;
      auto bytes = version == 5 ? smallProgramV5(offsetSize, sections)
                                : smallProgramV2to4(version, offsetSize, sections);
      EXPECT_EQ(render(symbolsOf(bytes)), kSmallProgram);
    }
  }
}

TEST(ImageSymbolsTest, SkipsEveryAttributeFormToReachTheName) {
  // A subprogram whose name comes after one attribute of every form; a
  // form read with the wrong size would misplace the name.
  for (unsigned offsetSize : {4u, 8u}) {
    Sections s;
    std::vector<AttributeForm> attributes;
    for (std::uint32_t form :
         {dw::FORM_block2, dw::FORM_block4, dw::FORM_data2, dw::FORM_data8, dw::FORM_string, dw::FORM_block,
          dw::FORM_block1, dw::FORM_data1, dw::FORM_flag, dw::FORM_sdata, dw::FORM_strp, dw::FORM_udata,
          dw::FORM_ref_addr, dw::FORM_ref1, dw::FORM_ref2, dw::FORM_ref4, dw::FORM_ref8, dw::FORM_ref_udata,
          dw::FORM_sec_offset, dw::FORM_exprloc, dw::FORM_flag_present, dw::FORM_strx, dw::FORM_addrx,
          dw::FORM_data16, dw::FORM_line_strp, dw::FORM_ref_sig8, dw::FORM_implicit_const, dw::FORM_loclistx,
          dw::FORM_rnglistx, dw::FORM_strx1, dw::FORM_strx2, dw::FORM_strx3, dw::FORM_strx4, dw::FORM_addrx1,
          dw::FORM_addrx2, dw::FORM_addrx3, dw::FORM_addrx4, dw::FORM_indirect})
      attributes.push_back({0x3000 + form, form, -7});
    attributes.push_back({dw::AT_low_pc, dw::FORM_addr});
    attributes.push_back({dw::AT_high_pc, dw::FORM_udata});
    attributes.push_back({dw::AT_name, dw::FORM_string});
    auto cu = s.abbrev.add(dw::TAG_compile_unit, true, {});
    auto function = s.abbrev.add(dw::TAG_subprogram, false, attributes);
    UnitWriter unit(s.info, 5, offsetSize, 8);
    Writer& w = unit.info();
    w.uleb(cu).uleb(function);
    w.u16(2).u16(0xaaaa).u32(1).u8(0xbb).u16(1).u64(2).str("skip me");  // block2 .. string
    w.uleb(3).zeros(3).u8(1).u8(9).u8(1).u8(1).sleb(-300);            // block, block1, data1, flag, sdata
    unit.offset(0);                                                    // strp
    w.uleb(1234567);                                  // udata
    unit.offset(0);                                   // ref_addr
    w.u8(1).u16(2).u32(3).u64(4).uleb(5);             // ref1 .. ref_udata
    unit.offset(0);                                   // sec_offset
    w.uleb(2).u8(0x9c).u8(0x9c);                      // exprloc
    w.uleb(1).uleb(2).zeros(16);                      // strx, addrx, data16
    unit.offset(0);                                   // line_strp
    w.u64(0x1122334455667788);                        // ref_sig8
    w.uleb(4).uleb(5);                                // loclistx, rnglistx
    w.u8(1).u16(2).fixed(3, 3).u32(4);                // strx1-4
    w.u8(1).u16(2).fixed(3, 3).u32(4);                // addrx1-4
    w.uleb(dw::FORM_indirect).uleb(dw::FORM_data2).u16(7);  // indirect, twice
    w.u64(kText).uleb(0x40).str("everything");
    w.u8(0);
    unit.finish();
    auto bytes = buildMachO(s.layout());
    EXPECT_EQ(render(symbolsOf(bytes)), "0+40 everything | everything\n") << offsetSize;
  }
}

// DIEs whose forms all have fixed sizes are stepped over whole: a form's
// fixed size must be what reading a value of it takes, whatever its bytes,
// and a form without one must take different amounts or be unreadable.
TEST(ImageSymbolsTest, FixedFormSizesAreWhatReadingTakes) {
  auto taken = [](std::uint32_t form, const FormContext& context, std::uint8_t fill) {
    const std::vector<std::uint8_t> bytes(64, fill);
    ByteReader reader(bytes);
    FormValue value;
    return readFormValue(reader, form, -7, context, value) ? static_cast<int>(reader.offset()) : -1;
  };
  for (const FormContext& context : {FormContext{2, 4, 4}, FormContext{4, 8, 4}, FormContext{5, 8, 8}, FormContext{4, 0, 4}})
    for (std::uint32_t form = 0; form < 0x1f40; form = form == 0x40 ? 0x1f00 : form + 1) {
      const int size = fixedFormSize(form, context), zeros = taken(form, context, 0), ones = taken(form, context, 0xff);
      const std::string where = fmt::format("form {:#x}, version {}, address size {}", form, context.version,
                                            context.addressSize);
      if (size >= 0) {
        EXPECT_EQ(zeros, size) << where;
        EXPECT_EQ(ones, size) << where;
      } else {
        EXPECT_TRUE(zeros < 0 || zeros != ones) << where;
      }
    }
}

TEST(ImageSymbolsTest, NamesFollowAbstractOriginsAndSurviveReferenceCycles) {
  Sections s;
  auto cu = s.abbrev.add(dw::TAG_compile_unit, true, {});
  auto abstract = s.abbrev.add(dw::TAG_subprogram, false, {{dw::AT_linkage_name, dw::FORM_string}});
  auto concrete = s.abbrev.add(dw::TAG_subprogram, true,
                               {{dw::AT_abstract_origin, dw::FORM_ref4}, {dw::AT_low_pc, dw::FORM_addr},
                                {dw::AT_high_pc, dw::FORM_data1}});
  auto inlined = s.abbrev.add(dw::TAG_inlined_subroutine, false,
                              {{dw::AT_abstract_origin, dw::FORM_ref4}, {dw::AT_low_pc, dw::FORM_addr},
                               {dw::AT_high_pc, dw::FORM_data1}});
  auto looping = s.abbrev.add(dw::TAG_subprogram, false,
                              {{dw::AT_specification, dw::FORM_ref4}, {dw::AT_low_pc, dw::FORM_addr},
                               {dw::AT_high_pc, dw::FORM_data1}});
  UnitWriter unit(s.info, 4, 4, 8);
  Writer& w = unit.info();
  w.uleb(cu);
  std::uint64_t abstractOffset = unit.here();
  w.uleb(abstract).str("_Z6squarei");
  w.uleb(concrete).u32(abstractOffset).u64(kText).u8(0x10);
  w.uleb(inlined).u32(abstractOffset).u64(kText + 4).u8(4);  // not a symbol of its own
  w.u8(0);
  // Two definitions that name each other: no name, and no hang.
  std::uint64_t first = unit.here();
  std::uint64_t second = first + 1 + 4 + 8 + 1;
  w.uleb(looping).u32(second).u64(kText + 0x10).u8(8);
  w.uleb(looping).u32(first).u64(kText + 0x18).u8(8);
  w.u8(0);
  unit.finish();
  auto bytes = buildMachO(s.layout());
  EXPECT_EQ(render(symbolsOf(bytes)),
            "0+10 __Z6squarei | square(int)\n"
            "10+8 - | -\n"
            "18+8 - | -\n");
}

TEST(ImageSymbolsTest, SymbolTableGivesNamesAndExtentsAndWinsOverDwarfNames) {
  // Without DWARF: code entries of __text only, each up to the next.
  MachOLayout layout;
  layout.symbols = {
      {"_c_function", 0x0f, 1, kText},
      {"__ZN2ns5thingEv", 0x0e, 1, kText + 0x10},
      {"-[Widget spin:]", 0x0e, 1, kText + 0x20},
      {"_alias_first", 0x0f, 1, kText + 0x30},
      {"_alias_last", 0x0e, 1, kText + 0x30},  // the last name at an address wins
      {"_$s4main3fooyyF", 0x0f, 1, kText + 0x40},
      {"__Znot_mangled", 0x0f, 1, kText + 0x50},
      {"_stab", 0x24, 1, kText + 0x60},           // N_FUN stab
      {"_undefined", 0x01, 0, 0},                 // N_UNDF | N_EXT
      {"_other_section", 0x0e, 2, kText + 0x70},  // not __text
      {"_past_the_end", 0x0e, 1, kText + 0x1000},
  };
  EXPECT_EQ(render(symbolsOf(buildMachO(layout))),
            "0+10 _c_function | c_function\n"
            "10+10 __ZN2ns5thingEv | ns::thing()\n"
            "20+10 -[Widget spin:] | -[Widget spin:]\n"
            "30+10 _alias_last | alias_last\n"
            "40+10 _$s4main3fooyyF | foo()\n"
            "50+fb0 __Znot_mangled | _Znot_mangled\n");

  // With DWARF: the table's name, the subprogram's extent.
  Sections s;
  auto cu = s.abbrev.add(dw::TAG_compile_unit, true, {});
  auto function = s.abbrev.add(dw::TAG_subprogram, false,
                               {{dw::AT_name, dw::FORM_string}, {dw::AT_low_pc, dw::FORM_addr},
                                {dw::AT_high_pc, dw::FORM_data2}});
  UnitWriter unit(s.info, 4, 4, 8);
  unit.info().uleb(cu).uleb(function).str("dwarf_name").u64(kText).u16(0x0c).u8(0);
  unit.finish();
  EXPECT_EQ(render(symbolsOf(buildMachO(s.layout({{"_table_name", 0x0f, 1, kText}, {"_next", 0x0f, 1, kText + 0x20}})))),
            "0+c _table_name | table_name\n"
            "20+fe0 _next | next\n");
}

TEST(ImageSymbolsTest, LineProgramsWithUnusualHeadersAndUnterminatedSequences) {
  Sections s;
  auto cu = s.abbrev.add(dw::TAG_compile_unit, true,
                         {{dw::AT_stmt_list, dw::FORM_sec_offset}, {dw::AT_comp_dir, dw::FORM_string}});
  auto function = s.abbrev.add(dw::TAG_subprogram, false,
                               {{dw::AT_name, dw::FORM_string}, {dw::AT_low_pc, dw::FORM_addr},
                                {dw::AT_high_pc, dw::FORM_data2}});
  // Instructions of 4 bytes, a larger opcode base with an unknown standard
  // opcode taking two operands, and a final sequence without end_sequence.
  LineProgram lines(3);
  lines.minInstructionLength = 4;
  lines.opcodeBase = 15;
  lines.files = {{"m.c", 0}};
  lines.setAddress(kText).advanceLine(9).copy();  // 0x00 m.c:10
  lines.op(13).ops.uleb(99).uleb(98);             // unknown: skipped with its operands
  lines.special(2, 1);                            // 0x08 m.c:11
  lines.negateStmt().advancePc(2).copy();         // 0x10 m.c:11, merges
  lines.setFile(7).special(1, 1);                 // 0x14 unknown file
  lines.advancePc(3).endSequence();               // 0x20
  lines.setAddress(kText + 0x20).copy().advancePc(4);  // never ended: dropped
  s.line = lines.bytes();
  UnitWriter unit(s.info, 3, 4, 8);
  unit.info().uleb(cu).u32(0).str("/m");
  unit.info().uleb(function).str("f").u64(kText).u16(0x30).u8(0);
  unit.finish();
  auto bytes = buildMachO(s.layout());
  EXPECT_EQ(render(symbolsOf(bytes)),
            "0+30 f | f\n"
            "  0+8 /m/m.c:10\n"
            "  8+c /m/m.c:11\n"
            "  14+c :12\n");
}

TEST(ImageSymbolsTest, DamagedDwarfGivesFewerRecordsNeverACrash) {
  Sections sections;
  auto good = smallProgramV5(4, sections);
  const std::string complete = render(symbolsOf(good));
  // Every truncation of the image, and every single-byte change in the
  // DWARF part of it, must be read without a fault (run under ASan/UBSan
  // in the sanitizer build) and without inventing symbols.
  for (std::size_t size = 0; size < good.size(); ++size) {
    std::vector<std::uint8_t> cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
    symbolsOf(cut);
  }
  // Byte changes stay inside the DWARF sections, so that the text
  // section's bounds hold.
  const auto images = macho::readMachOLayout(macho::Bytes(good)).images;
  ASSERT_EQ(images.size(), 1u);
  const std::size_t dwarfStart = images[0].sections.at(1).fileOffset;
  const std::size_t dwarfEnd = images[0].symbolOffset;
  std::size_t changed = 0;
  for (std::size_t at = dwarfStart; at < dwarfEnd; ++at) {
    for (std::uint8_t value : {0x00, 0x7f, 0xff}) {
      auto damaged = good;
      if (damaged[at] == value) continue;
      damaged[at] = value;
      ImageSymbols symbols = symbolsOf(damaged);
      if (render(symbols) != complete) ++changed;
      symbols.forEachSymbolSources([&](const ImageSymbol& symbol, std::span<const SourceRecord> records) {
        EXPECT_GE(symbol.address, kText);
        EXPECT_LE(symbol.address + symbol.length, kText + 0x1000);
        for (const SourceRecord& record : records) {
          const SourceInfo source = symbols.source(record);
          EXPECT_GE(source.address, symbol.address);
          EXPECT_LE(source.address + source.length, symbol.address + symbol.length);
        }
      });
    }
  }
  EXPECT_GT(changed, 0u);
}

constexpr std::uint64_t kHostileText = 0x100001000;

// One unit whose functions each cover [text + 4 i, text + 4 functions)
// (every extent runs to the end of the text, so all of them overlap), or
// [text + 4 i, text + 4 i + 4) when overlapping is false; one line row per
// function start; files.size() file entries under a compilation folder
// compDir, each used by one row in turn.
std::vector<std::uint8_t> hostileImage(std::size_t functions, bool overlapping, const std::string& compDir,
                                       std::size_t files = 1) {
  AbbreviationWriter abbrev;
  const auto unitCode = abbrev.add(dw::TAG_compile_unit, true,
                                   {{dw::AT_comp_dir, dw::FORM_string},
                                    {dw::AT_stmt_list, dw::FORM_sec_offset},
                                    {dw::AT_low_pc, dw::FORM_addr}});
  const auto functionCode = abbrev.add(dw::TAG_subprogram, false,
                                       {{dw::AT_low_pc, dw::FORM_addr},
                                        {dw::AT_high_pc, dw::FORM_data4},
                                        {dw::AT_name, dw::FORM_strp}});
  StringSection strings;
  const std::uint64_t name = strings.add("f");  // one name for all: the file stays small

  LineProgram lines(4);
  for (std::size_t f = 0; f < files; ++f) lines.files.push_back({"s" + std::to_string(f) + ".c", 0});
  lines.setAddress(kHostileText).copy();
  for (std::size_t i = 1; i < functions; ++i) {
    if (files > 1) lines.setFile(1 + i % files);
    lines.special(4, 1);
  }
  lines.advancePc(4).endSequence();

  Writer info;
  UnitWriter unit(info, 4, 4, 8);
  info.uleb(unitCode).str(compDir).u32(0).u64(kHostileText);
  const std::uint64_t end = 4 * functions;
  for (std::size_t i = 0; i < functions; ++i)
    info.uleb(functionCode).u64(kHostileText + 4 * i).u32(overlapping ? end - 4 * i : 4).u32(name);
  info.u8(0);
  unit.finish();

  MachOLayout layout;
  layout.uuids = {{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}};
  layout.textAddress = kHostileText;
  layout.textSize = end + 4;
  layout.withSymbolTable = false;
  layout.dwarf = {{"__debug_abbrev", abbrev.bytes()}, {"__debug_info", info.bytes},
                  {"__debug_str", strings.bytes()},   {"__debug_line", lines.bytes()}};
  return buildMachO(layout);
}

ImageSymbols read(const std::vector<std::uint8_t>& bytes, DamageList* damage, const char* name) {
  if (const char* out = std::getenv("SYMLIFT_HOSTILE_OUT")) {
    const auto folder = std::filesystem::path(out) / (std::string(name) + ".dSYM/Contents/Resources/DWARF");
    std::filesystem::create_directories(folder);
    std::ofstream(folder / name, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                         static_cast<std::streamsize>(bytes.size()));
  }
  auto images = macho::readMachOLayout(macho::Bytes(bytes)).images;
  return images.empty() ? ImageSymbols{} : readImageSymbols(images.front(), {}, damage);
}

TEST(HostileDwarfTest, OverlappingExtentsGiveEachRowToOneFunction) {
  constexpr std::size_t kFunctions = 10000;
  DamageList damage;
  const ImageSymbols symbols = read(hostileImage(kFunctions, true, "/src"), &damage, "Overlapping");
  ASSERT_EQ(symbols.symbols.size(), kFunctions);
  // Each function keeps the one row at its start: the extent ends where the
  // next function starts.
  EXPECT_EQ(symbols.sourceCount(), kFunctions);
  for (std::size_t index : {std::size_t{0}, kFunctions - 1}) {
    EXPECT_EQ(symbols.symbols[index].length, 4u);
    EXPECT_EQ(symbols.sourcesOf(index).size(), 1u);
  }
}

TEST(HostileDwarfTest, ALongCompilationFolderForThousandsOfFilesIsLeftOut) {
  enum class Made { All, None, Some };
  struct Case {
    std::size_t compDir;
    Made paths;
    const char* damage;
  };
  const Case cases[] = {
      {100, Made::All, nullptr},
      {1 << 20, Made::None, "source paths longer than 4096 bytes"},
      // Paths of 4000 bytes for 2000 files: more than the table's budget.
      {4000, Made::Some, "source paths beyond"},
  };
  constexpr std::size_t kFiles = 2000;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.compDir);
    DamageList damage;
    const ImageSymbols symbols =
        read(hostileImage(4000, false, "/" + std::string(c.compDir - 1, 'd'), kFiles), &damage, "PathBomb");
    EXPECT_EQ(symbols.sourceCount(), 4000u);
    if (c.paths == Made::All) {
      EXPECT_EQ(symbols.paths.size(), kFiles);
    } else if (c.paths == Made::None) {
      EXPECT_EQ(symbols.paths.size(), 0u);
    } else {
      EXPECT_GT(symbols.paths.size(), 0u);
      EXPECT_LT(symbols.paths.size(), kFiles);
    }
    if (c.damage) {
      ASSERT_FALSE(damage.empty());
      EXPECT_NE(damage.front().text.find(c.damage), std::string::npos) << damage.front().text;
    } else {
      EXPECT_TRUE(damage.empty());
    }
  }
}

TEST(HostileDwarfTest, ManyFunctionsOneRowEach) {
  constexpr std::size_t kFunctions = 200000;  // 1,000,000 measured by hand
  const ImageSymbols symbols = read(hostileImage(kFunctions, false, "/src"), nullptr, "ManyFunctions");
  EXPECT_EQ(symbols.symbols.size(), kFunctions);
  EXPECT_EQ(symbols.sourceCount(), kFunctions);
}

}  // namespace
}  // namespace symlift::symbols::dwarf
