#pragma once
// Line-number programs of .debug_line (DWARF 2 to 5): the header with its
// directory and file tables, and the rows the program produces, grouped into
// sequences [low, high) that each end with an end_sequence row.

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "symbols/dwarf/debug_info.h"

namespace symlift::symbols::dwarf {

inline constexpr std::uint32_t kNoFile = UINT32_MAX;

struct LineRow {
  std::uint64_t address = 0;
  std::uint32_t file = kNoFile;  // index into LineTables::paths
  std::uint32_t line = 0;
};

struct LineSequence {
  std::uint64_t low = 0;
  std::uint64_t high = 0;  // the address of its end_sequence row
  std::size_t firstRow = 0;
  std::size_t rowCount = 0;  // without the end_sequence row
};

// The rows and sequences of every line table read so far, and the full
// path of every file-table entry (built once per entry).
struct LineTables {
  std::vector<LineRow> rows;
  std::vector<LineSequence> sequences;
  std::vector<std::string_view> paths;
};

// Joins path components the way the path utilities of LLVM do: a separator
// between components unless one is already there.
void appendPathComponent(std::string& path, std::string_view component);

// Reads the line program at offset for unit; the full paths are kept in
// strings. Returns the offset just past the table, or nothing when its
// header is damaged; sequences completed before damage in the program are
// kept, and damage notes what was skipped.
std::optional<std::uint64_t> readLineTable(const DwarfSections& sections, const UnitInfo& unit,
                                           std::uint64_t offset, LineTables& out, std::deque<std::string>& strings,
                                           DamageList* damage = nullptr);

}  // namespace symlift::symbols::dwarf
