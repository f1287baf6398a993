#pragma once
// Address range lists: DW_AT_ranges into .debug_ranges (DWARF 2-4) or
// .debug_rnglists (DWARF 5, by offset or by DW_FORM_rnglistx index).

#include <cstdint>
#include <utility>
#include <vector>

#include "symbols/dwarf/debug_info.h"

namespace symlift::symbols::dwarf {

using AddressRange = std::pair<std::uint64_t, std::uint64_t>;  // [first, second)

// Appends the non-empty ranges of the list the value names; false when the
// list is out of bounds or damaged (ranges read before the damage are kept).
// Each entry read takes one from budget; at zero, reading stops.
bool readRangeList(const DwarfSections& sections, const UnitInfo& unit, const FormValue& value,
                   std::vector<AddressRange>& out, std::uint64_t& budget);

}  // namespace symlift::symbols::dwarf
