#pragma once
// The code entries of a Mach-O symbol table (nlist / nlist_64): defined in a
// section (N_SECT), not debugger stabs, inside __TEXT,__text.

#include <cstdint>
#include <string_view>
#include <vector>

#include "macho/macho_file.h"
#include "symbols/dwarf/byte_reader.h"
#include "symbols/dwarf/damage.h"

namespace symlift::symbols::dwarf {

struct TableSymbol {
  std::uint64_t address = 0;
  std::string_view name;  // as written, with the Mach-O leading underscore
  bool external = false;
};

// Sorted by address; of several names at one address the last in table
// order is kept. damage notes a table that does not lie inside the image.
std::vector<TableSymbol> readTextSymbols(const macho::MachOImage& image, DamageList* damage = nullptr);

}  // namespace symlift::symbols::dwarf
