#pragma once
// The units of .debug_info and the walk over their DIEs: unit headers
// (DWARF 2 to 5, 32- and 64-bit formats), the compile-unit attributes the
// line tables need, the code ranges of every subprogram, and the names of a
// subprogram (following DW_AT_specification and DW_AT_abstract_origin).

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "symbols/dwarf/abbreviations.h"
#include "symbols/dwarf/damage.h"
#include "symbols/dwarf/dwarf_forms.h"
#include "symbols/dwarf/dwarf_sections.h"

namespace symlift::symbols::dwarf {

struct UnitInfo {
  std::uint64_t offset = 0;    // of the unit header in .debug_info
  std::uint64_t end = 0;       // one past the unit
  std::uint64_t firstDie = 0;  // offset of the unit DIE
  std::uint8_t unitType = 1;   // DW_UT_*; DWARF 2-4 units in .debug_info are compile units
  FormContext context;
  UnitBases bases;
  const AbbreviationTable* abbreviations = nullptr;  // null when unreadable
  std::uint32_t tag = 0;                             // of the unit DIE
  std::string_view compDir;
  std::optional<std::uint64_t> stmtList;
  std::uint64_t baseAddress = 0;  // DW_AT_low_pc of the unit DIE
};

// One address range of a subprogram's code.
struct FunctionRange {
  std::uint64_t low = 0;
  std::uint64_t high = 0;
  std::uint64_t dieOffset = 0;
};

struct FunctionNames {
  std::optional<std::string_view> linkageName;
  std::optional<std::string_view> name;
};

class DebugInfo {
 public:
  // Reads every unit header and unit DIE; damage notes what is skipped.
  explicit DebugInfo(const DwarfSections& sections, DamageList* damage = nullptr);

  const std::vector<UnitInfo>& units() const { return units_; }

  // Every range of every subprogram with code, in DIE order. Inlined
  // subroutines are not subprograms. A damaged unit ends where the damage is
  // (noted in damage).
  std::vector<FunctionRange> functionRanges(DamageList* damage = nullptr) const;
  // The same for units [firstUnit, endUnit) only, drawing on budget (range-list
  // entries the walk may still read; start from functionRangeBudget()). Runs
  // over disjoint unit spans may go on separate threads.
  std::vector<FunctionRange> functionRanges(std::size_t firstUnit, std::size_t endUnit, std::uint64_t& budget,
                                            DamageList* damage = nullptr) const;
  // Range-list entries all subprograms together may read: many DIEs of a
  // damaged unit could name one long list.
  std::uint64_t functionRangeBudget() const;

  // The linkage name and the name of the subprogram at dieOffset, each
  // looked up on the DIE first and then along its DW_AT_specification and
  // DW_AT_abstract_origin references (a bounded number of hops).
  FunctionNames namesOf(std::uint64_t dieOffset) const;

 private:
  const UnitInfo* unitContaining(std::uint64_t offset) const;
  const AbbreviationTable* abbreviationTable(std::uint64_t offset);
  void readUnitDie(UnitInfo& unit);

  const DwarfSections& sections_;
  std::vector<UnitInfo> units_;
  std::map<std::uint64_t, std::unique_ptr<AbbreviationTable>> tables_;
  // Tables at many offsets of one damaged section could each run to its
  // end; the bytes all tables may go through are bounded.
  std::uint64_t abbreviationBudget_ = 0;
};

}  // namespace symlift::symbols::dwarf
