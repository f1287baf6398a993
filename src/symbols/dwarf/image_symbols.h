#pragma once
// The code symbols of one image and their source records: symbol-table
// entries and DWARF subprograms of __TEXT,__text joined into one list in
// address order, each with the line-table records inside its extent.

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "symbols/dwarf/macho_image.h"
#include "symbols/symbolication_provider.h"

namespace symlift::symbols::dwarf {

struct ImageSymbol {
  std::optional<std::string_view> mangledName;
  std::optional<std::string_view> name;
  std::uint64_t address = 0;
  std::uint64_t length = 0;
  std::size_t firstSource = 0;  // into ImageSymbols::sources
  std::size_t sourceCount = 0;
};

struct ImageSymbols {
  std::vector<ImageSymbol> symbols;
  std::vector<SourceInfo> sources;
  // Text that is not in the file itself (full paths, demangled names); a
  // deque so that views into it stay valid as it grows.
  std::deque<std::string> strings;

  std::string_view keep(std::string text) { return strings.emplace_back(std::move(text)); }
};

ImageSymbols readImageSymbols(const MachOImage& image);

}  // namespace symlift::symbols::dwarf
