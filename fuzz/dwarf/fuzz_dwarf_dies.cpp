// Abbreviation tables and the DIE walk: the input is split into
// .debug_abbrev and .debug_info (the first two bytes give the split); the
// other sections see the whole input.

#include <cstddef>
#include <cstdint>

#include "symbols/dwarf/debug_info.h"

using namespace symlift::symbols::dwarf;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  Bytes input(data + 2, size - 2);
  std::size_t split = (std::size_t{data[0]} | (std::size_t{data[1]} << 8)) % (input.size() + 1);
  DwarfSections sections;
  sections.abbrev = input.first(split);
  sections.info = input.subspan(split);
  sections.str = sections.lineStr = sections.strOffsets = sections.addr = sections.ranges = sections.rnglists = input;
  DebugInfo debugInfo(sections);
  for (const FunctionRange& range : debugInfo.functionRanges()) {
    FunctionNames names = debugInfo.namesOf(range.dieOffset);
    if (names.name && names.name->size() > input.size()) __builtin_trap();
  }
  return 0;
}
