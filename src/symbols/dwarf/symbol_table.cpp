#include "symbols/dwarf/symbol_table.h"

#include <fmt/format.h>

#include <algorithm>

namespace symlift::symbols::dwarf {

namespace {
constexpr std::uint8_t kTypeStab = 0xe0;
constexpr std::uint8_t kTypeMask = 0x0e;
constexpr std::uint8_t kTypeSection = 0x0e;
constexpr std::uint8_t kTypeExternal = 0x01;
}  // namespace

std::vector<TableSymbol> readTextSymbols(const macho::MachOImage& image, DamageList* damage) {
  std::vector<TableSymbol> symbols;
  if (image.bigEndian || !image.hasSymbolTable || !image.textSection) return symbols;
  std::size_t textIndex = 0;
  while (textIndex < image.sections.size() &&
         !(image.sections[textIndex].segmentName == "__TEXT" && image.sections[textIndex].sectionName == "__text"))
    ++textIndex;
  const macho::MachOSection& text = *image.textSection;

  const Bytes slice = image.bytes;
  if (image.stringOffset > slice.size()) {
    noteDamage(damage, "symbol table", image.stringOffset, "the symbol table (its strings lie past the end of the slice)");
    return symbols;
  }
  if (image.stringSize > slice.size() - image.stringOffset)
    noteDamage(damage, "symbol table", image.stringOffset, "the end of the string table, past the end of the slice");
  Bytes strings = slice.subspan(image.stringOffset, std::min<std::size_t>(image.stringSize, slice.size() - image.stringOffset));
  const std::size_t entrySize = image.is64Bit ? 16 : 12;
  if (image.symbolOffset > slice.size()) {
    noteDamage(damage, "symbol table", image.symbolOffset, "the symbol table (it starts past the end of the slice)");
    return symbols;
  }
  std::size_t count = std::min<std::size_t>(image.symbolCount, (slice.size() - image.symbolOffset) / entrySize);
  if (count < image.symbolCount)
    noteDamage(damage, "symbol table", image.symbolOffset,
               fmt::format("{} of {} symbols, which lie past the end of the slice", image.symbolCount - count,
                           image.symbolCount));

  ByteReader reader(slice, image.symbolOffset);
  for (std::size_t i = 0; i < count; ++i) {
    std::uint32_t nameOffset = reader.u32();
    std::uint8_t type = reader.u8();
    std::uint8_t sectionNumber = reader.u8();
    reader.u16();  // n_desc
    std::uint64_t value = image.is64Bit ? reader.u64() : reader.u32();
    if (!reader.ok()) break;
    if (type & kTypeStab) continue;
    if ((type & kTypeMask) != kTypeSection) continue;
    if (sectionNumber == 0 || sectionNumber - 1u != textIndex) continue;
    if (value < text.address || value - text.address >= text.size) continue;
    std::string_view name;
    if (!stringAt(strings, nameOffset, name) || name.empty()) continue;
    symbols.push_back({value, name, (type & kTypeExternal) != 0});
  }
  // Stable: among equal addresses table order is kept.
  std::stable_sort(symbols.begin(), symbols.end(),
                   [](const TableSymbol& a, const TableSymbol& b) { return a.address < b.address; });
  // Several names at one address (aliases, folded identical code): the
  // last one in table order names it, as LLVM's symbolizer chooses.
  std::vector<TableSymbol> unique;
  unique.reserve(symbols.size());
  for (std::size_t i = 0; i < symbols.size(); ++i)
    if (i + 1 == symbols.size() || symbols[i + 1].address != symbols[i].address) unique.push_back(symbols[i]);
  return unique;
}

}  // namespace symlift::symbols::dwarf
