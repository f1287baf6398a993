#pragma once
// Valid DWARF made to hurt a reader's time and memory: extents that all
// overlap, a compilation folder repeated for thousands of files, a great
// many functions. Each is a thin arm64 dSYM image built in memory.

#include <string>
#include <vector>

#include "dwarf_builder.h"

namespace symlift::symbols::dwarf::testing {

inline constexpr std::uint64_t kHostileText = 0x100001000;

// One unit whose functions each cover [text + 4 i, text + 4 functions)
// (every extent runs to the end of the text, so all of them overlap), or
// [text + 4 i, text + 4 i + 4) when overlapping is false; one line row per
// function start; files.size() file entries under a compilation folder
// compDir, each used by one row in turn.
inline std::vector<std::uint8_t> hostileImage(std::size_t functions, bool overlapping, const std::string& compDir,
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

}  // namespace symlift::symbols::dwarf::testing
