#pragma once
// The DWARF sections of one image (segment __DWARF), as views into the file.
// Any of them may be empty.

#include "symbols/dwarf/byte_reader.h"
#include "macho/macho_file.h"

namespace symlift::symbols::dwarf {

struct DwarfSections {
  Bytes info;
  Bytes abbrev;
  Bytes line;
  Bytes str;
  Bytes lineStr;
  Bytes strOffsets;
  Bytes addr;
  Bytes ranges;
  Bytes rnglists;

  static DwarfSections of(const macho::MachOImage& image) {
    DwarfSections sections;
    // Mach-O section names are cut to 16 characters.
    sections.info = image.sectionContents("__DWARF", "__debug_info");
    sections.abbrev = image.sectionContents("__DWARF", "__debug_abbrev");
    sections.line = image.sectionContents("__DWARF", "__debug_line");
    sections.str = image.sectionContents("__DWARF", "__debug_str");
    sections.lineStr = image.sectionContents("__DWARF", "__debug_line_str");
    sections.strOffsets = image.sectionContents("__DWARF", "__debug_str_offs");
    sections.addr = image.sectionContents("__DWARF", "__debug_addr");
    sections.ranges = image.sectionContents("__DWARF", "__debug_ranges");
    sections.rnglists = image.sectionContents("__DWARF", "__debug_rnglists");
    return sections;
  }
};

}  // namespace symlift::symbols::dwarf
