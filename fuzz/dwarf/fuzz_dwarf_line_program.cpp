// Line-number programs: every table in the input, read for units of each
// DWARF version and address size.

#include <cstddef>
#include <cstdint>

#include "symbols/dwarf/line_table.h"

using namespace symlift::symbols::dwarf;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  DwarfSections sections;
  sections.line = Bytes(data + 1, size - 1);
  sections.str = sections.lineStr = sections.strOffsets = sections.line;
  UnitInfo unit;
  unit.context.version = static_cast<std::uint16_t>(2 + data[0] % 4);
  unit.context.addressSize = (data[0] & 0x10) ? 4 : 8;
  unit.compDir = "/comp";
  LineTables tables;
  std::deque<std::string> strings;
  readLineTable(sections, unit, 0, tables, strings);
  for (const LineSequence& sequence : tables.sequences)
    if (sequence.firstRow + sequence.rowCount > tables.rows.size() || sequence.high <= sequence.low) __builtin_trap();
  for (const LineRow& row : tables.rows)
    if (row.file != kNoFile && row.file >= tables.paths.size()) __builtin_trap();
  return 0;
}
