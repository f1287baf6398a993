#include "dwarf_builder.h"

namespace symlift::symbols::dwarf::testing {

namespace {

void name16(Writer& writer, std::string_view name) {
  std::string padded(name.substr(0, 16));
  padded.resize(16, '\0');
  writer.bytes.insert(writer.bytes.end(), padded.begin(), padded.end());
}

void bigEndian32(Writer& writer, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) writer.u8((value >> shift) & 0xff);
}

}  // namespace

std::vector<std::uint8_t> buildMachO(const MachOLayout& layout) {
  const unsigned word = layout.is64 ? 8 : 4;
  const std::size_t headerSize = layout.is64 ? 32 : 28;
  const std::size_t segmentSize = layout.is64 ? 72 : 56;
  const std::size_t sectionSize = layout.is64 ? 80 : 68;
  const std::size_t commandsSize = 2 * segmentSize + sectionSize * (1 + layout.dwarf.size()) + 24 * layout.uuids.size() +
                                   (layout.withSymbolTable ? 24 : 0);
  // File layout: header, load commands, DWARF section contents, symbols, strings.
  std::size_t cursor = headerSize + commandsSize;
  std::vector<std::size_t> dwarfOffsets;
  for (const auto& section : layout.dwarf) {
    dwarfOffsets.push_back(cursor);
    cursor += section.second.size();
  }
  const std::size_t symbolOffset = cursor;
  Writer strings;
  strings.u8(0);
  std::vector<std::uint32_t> nameOffsets;
  for (const TableEntry& entry : layout.symbols) {
    nameOffsets.push_back(static_cast<std::uint32_t>(strings.size()));
    strings.str(entry.name);
  }
  const std::size_t stringOffset = symbolOffset + layout.symbols.size() * (layout.is64 ? 16 : 12);

  Writer out;
  out.u32(layout.is64 ? 0xfeedfacf : 0xfeedface).u32(layout.cputype).u32(layout.cpusubtype).u32(layout.fileType);
  out.u32(2 + layout.uuids.size() + (layout.withSymbolTable ? 1 : 0)).u32(commandsSize).u32(0);
  if (layout.is64) out.u32(0);

  auto section = [&](std::string_view sectionName, std::string_view segmentName, std::uint64_t address,
                     std::uint64_t size, std::uint32_t offset) {
    name16(out, sectionName);
    name16(out, segmentName);
    out.fixed(word, address).fixed(word, size).u32(offset).u32(0).u32(0).u32(0).u32(0).u32(0).u32(0);
    if (layout.is64) out.u32(0);
  };
  // __TEXT with __text: addresses only, no file contents (as in a dSYM).
  out.u32(layout.is64 ? 0x19 : 0x1).u32(segmentSize + sectionSize);
  name16(out, "__TEXT");
  out.fixed(word, layout.textSegmentAddress).fixed(word, 0x10000).fixed(word, 0).fixed(word, 0);
  out.u32(5).u32(5).u32(1).u32(0);
  section("__text", "__TEXT", layout.textAddress, layout.textSize, 0);
  // __DWARF
  out.u32(layout.is64 ? 0x19 : 0x1).u32(segmentSize + sectionSize * layout.dwarf.size());
  name16(out, "__DWARF");
  out.fixed(word, 0x200000000).fixed(word, 0x10000).fixed(word, 0).fixed(word, 0);
  out.u32(3).u32(3).u32(layout.dwarf.size()).u32(0);
  for (std::size_t i = 0; i < layout.dwarf.size(); ++i)
    section(layout.dwarf[i].first, "__DWARF", 0x200000000 + dwarfOffsets[i], layout.dwarf[i].second.size(),
            static_cast<std::uint32_t>(dwarfOffsets[i]));
  for (const auto& uuid : layout.uuids) {
    out.u32(0x1b).u32(24);
    out.bytes.insert(out.bytes.end(), uuid.begin(), uuid.end());
  }
  if (layout.withSymbolTable)
    out.u32(0x2).u32(24).u32(symbolOffset).u32(layout.symbols.size()).u32(stringOffset).u32(strings.size());

  for (const auto& dwarfSection : layout.dwarf) out.raw(dwarfSection.second);
  for (std::size_t i = 0; i < layout.symbols.size(); ++i) {
    const TableEntry& entry = layout.symbols[i];
    out.u32(nameOffsets[i]).u8(entry.type).u8(entry.section).u16(0).fixed(word, entry.value);
  }
  out.raw(strings.bytes);
  return out.bytes;
}

std::vector<std::uint8_t> buildFat(const std::vector<FatSlice>& slices) {
  Writer out;
  bigEndian32(out, 0xcafebabe);
  bigEndian32(out, static_cast<std::uint32_t>(slices.size()));
  std::size_t offset = 8 + 20 * slices.size();
  std::vector<std::size_t> offsets;
  for (const FatSlice& slice : slices) {
    offset = (offset + 15) & ~std::size_t{15};
    offsets.push_back(offset);
    bigEndian32(out, static_cast<std::uint32_t>(slice.cputype));
    bigEndian32(out, static_cast<std::uint32_t>(slice.cpusubtype));
    bigEndian32(out, static_cast<std::uint32_t>(offset));
    bigEndian32(out, static_cast<std::uint32_t>(slice.bytes.size()));
    bigEndian32(out, 4);
    offset += slice.bytes.size();
  }
  for (std::size_t i = 0; i < slices.size(); ++i) {
    out.zeros(offsets[i] - out.size());
    out.raw(slices[i].bytes);
  }
  return out.bytes;
}

}  // namespace symlift::symbols::dwarf::testing
