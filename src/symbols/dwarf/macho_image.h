#pragma once
// The slices of a (possibly fat) Mach-O file and, per slice, what the
// symbol reader needs from its load commands: architecture, file type, UUID,
// the __TEXT segment and __text section, the DWARF sections and the symbol
// table. Every view points into the mapped file.

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "symbols/dwarf/byte_reader.h"

namespace symlift::symbols::dwarf {

inline constexpr std::uint32_t kMachOFileObject = 0x1;
inline constexpr std::uint32_t kMachOFileDylib = 0x6;
inline constexpr std::uint32_t kMachOFileBundle = 0x8;
inline constexpr std::uint32_t kMachOFileDsym = 0xa;

struct MachOSection {
  std::string_view segmentName;
  std::string_view sectionName;
  std::uint64_t address = 0;
  std::uint64_t size = 0;
  std::uint32_t fileOffset = 0;  // relative to the slice; 0 when it has no contents
};

struct MachOImage {
  Bytes bytes;  // the whole slice
  std::int32_t cputype = 0;
  std::int32_t cpusubtype = 0;
  std::uint32_t fileType = 0;
  bool is64Bit = false;
  // A byte-swapped image: only the header is read.
  bool bigEndian = false;
  std::optional<std::array<std::uint8_t, 16>> uuid;
  std::uint64_t textSegmentAddress = 0;
  std::optional<MachOSection> textSection;  // __TEXT,__text
  std::vector<MachOSection> sections;        // in load-command order (n_sect - 1)
  // LC_SYMTAB, as offsets relative to the slice (unchecked until used).
  bool hasSymbolTable = false;
  std::uint32_t symbolOffset = 0;
  std::uint32_t symbolCount = 0;
  std::uint32_t stringOffset = 0;
  std::uint32_t stringSize = 0;

  // The contents of a section that has file data inside the slice, found by
  // segment and section name; empty when absent or out of bounds.
  Bytes sectionContents(std::string_view segment, std::string_view section) const;
};

// The thin images of a file, in fat-header order (one for a thin file).
// Slices that are not Mach-O images or lie outside the file are left out.
std::vector<MachOImage> readMachOImages(Bytes file);

// One thin image at the start of bytes, or nothing.
std::optional<MachOImage> readMachOImage(Bytes bytes);

}  // namespace symlift::symbols::dwarf
