#include "symbols/dwarf/macho_image.h"

#include <algorithm>
#include <cstring>

namespace symlift::symbols::dwarf {

namespace {

constexpr std::uint32_t kFatMagic = 0xcafebabe;
constexpr std::uint32_t kFatMagic64 = 0xcafebabf;
constexpr std::uint32_t kMagic32 = 0xfeedface;
constexpr std::uint32_t kMagic64 = 0xfeedfacf;
constexpr std::uint32_t kCigam32 = 0xcefaedfe;
constexpr std::uint32_t kCigam64 = 0xcffaedfe;

constexpr std::uint32_t kLoadSegment = 0x1;
constexpr std::uint32_t kLoadSymtab = 0x2;
constexpr std::uint32_t kLoadUuid = 0x1b;
constexpr std::uint32_t kLoadSegment64 = 0x19;

// Load commands and sections beyond these counts are not believed.
constexpr std::uint32_t kMaxLoadCommands = 1u << 16;
constexpr std::uint32_t kMaxFatArchitectures = 64;

std::uint32_t bigEndian32(Bytes bytes, std::size_t offset) {
  return (std::uint32_t{bytes[offset]} << 24) | (std::uint32_t{bytes[offset + 1]} << 16) |
         (std::uint32_t{bytes[offset + 2]} << 8) | std::uint32_t{bytes[offset + 3]};
}

std::uint64_t bigEndian64(Bytes bytes, std::size_t offset) {
  return (std::uint64_t{bigEndian32(bytes, offset)} << 32) | bigEndian32(bytes, offset + 4);
}

// A fixed-size name field: up to 16 bytes, NUL-terminated when shorter.
std::string_view nameField(Bytes field) {
  const char* text = reinterpret_cast<const char*>(field.data());
  std::size_t length = 0;
  while (length < field.size() && text[length] != '\0') ++length;
  return {text, length};
}

void readSegment(ByteReader& reader, std::size_t commandEnd, bool is64, MachOImage& image) {
  std::string_view segmentName = nameField(reader.bytes(16));
  std::uint64_t vmaddr = is64 ? reader.u64() : reader.u32();
  reader.skip(is64 ? 8 * 3 : 4 * 3);  // vmsize, fileoff, filesize
  reader.skip(8);                     // maxprot, initprot
  std::uint32_t sectionCount = reader.u32();
  reader.skip(4);  // flags
  if (!reader.ok()) return;
  if (segmentName == "__TEXT") image.textSegmentAddress = vmaddr;
  const std::size_t sectionSize = is64 ? 80 : 68;
  for (std::uint32_t i = 0; i < sectionCount; ++i) {
    if (reader.offset() + sectionSize > commandEnd) break;
    MachOSection section;
    section.sectionName = nameField(reader.bytes(16));
    section.segmentName = nameField(reader.bytes(16));
    section.address = is64 ? reader.u64() : reader.u32();
    section.size = is64 ? reader.u64() : reader.u32();
    section.fileOffset = reader.u32();
    reader.skip(is64 ? 4 * 7 : 4 * 6);  // align, reloff, nreloc, flags, reserved
    if (!reader.ok()) return;
    // A section that would wrap around the address space ends at its top.
    section.size = std::min(section.size, UINT64_MAX - section.address);
    if (section.segmentName == "__TEXT" && section.sectionName == "__text" && !image.textSection)
      image.textSection = section;
    image.sections.push_back(section);
  }
}

}  // namespace

Bytes MachOImage::sectionContents(std::string_view segment, std::string_view section) const {
  for (const MachOSection& candidate : sections) {
    if (candidate.segmentName != segment || candidate.sectionName != section) continue;
    if (candidate.fileOffset == 0 || candidate.fileOffset > bytes.size() ||
        candidate.size > bytes.size() - candidate.fileOffset)
      return {};
    return bytes.subspan(candidate.fileOffset, static_cast<std::size_t>(candidate.size));
  }
  return {};
}

std::optional<MachOImage> readMachOImage(Bytes bytes) {
  ByteReader reader(bytes);
  std::uint32_t magic = reader.u32();
  if (!reader.ok()) return std::nullopt;
  MachOImage image;
  image.bytes = bytes;
  if (magic == kCigam32 || magic == kCigam64) {
    // Byte-swapped: report the architecture, read nothing else.
    if (bytes.size() < 12) return std::nullopt;
    image.bigEndian = true;
    image.is64Bit = magic == kCigam64;
    image.cputype = static_cast<std::int32_t>(bigEndian32(bytes, 4));
    image.cpusubtype = static_cast<std::int32_t>(bigEndian32(bytes, 8));
    if (bytes.size() >= 16) image.fileType = bigEndian32(bytes, 12);
    return image;
  }
  if (magic != kMagic32 && magic != kMagic64) return std::nullopt;
  image.is64Bit = magic == kMagic64;
  image.cputype = static_cast<std::int32_t>(reader.u32());
  image.cpusubtype = static_cast<std::int32_t>(reader.u32());
  image.fileType = reader.u32();
  std::uint32_t commandCount = reader.u32();
  reader.u32();  // sizeofcmds: each command's own size is checked instead
  reader.u32();  // flags
  if (image.is64Bit) reader.u32();
  if (!reader.ok()) return std::nullopt;
  if (commandCount > kMaxLoadCommands) commandCount = kMaxLoadCommands;

  for (std::uint32_t i = 0; i < commandCount; ++i) {
    std::size_t start = reader.offset();
    std::uint32_t command = reader.u32();
    std::uint32_t commandSize = reader.u32();
    if (!reader.ok() || commandSize < 8 || commandSize > bytes.size() - start) break;
    std::size_t end = start + commandSize;
    ByteReader body(bytes.first(end), reader.offset());
    switch (command) {
      case kLoadSegment:
      case kLoadSegment64:
        readSegment(body, end, command == kLoadSegment64, image);
        break;
      case kLoadUuid: {
        Bytes uuid = body.bytes(16);
        if (body.ok()) {
          std::array<std::uint8_t, 16> value{};
          std::memcpy(value.data(), uuid.data(), 16);
          image.uuid = value;  // the last one wins
        }
        break;
      }
      case kLoadSymtab:
        image.symbolOffset = body.u32();
        image.symbolCount = body.u32();
        image.stringOffset = body.u32();
        image.stringSize = body.u32();
        image.hasSymbolTable = body.ok();
        break;
      default:
        break;
    }
    reader.seek(end);
  }
  return image;
}

std::vector<MachOImage> readMachOImages(Bytes file) {
  std::vector<MachOImage> images;
  if (file.size() < 8) return images;
  std::uint32_t magic = bigEndian32(file, 0);
  if (magic != kFatMagic && magic != kFatMagic64) {
    if (auto image = readMachOImage(file)) images.push_back(std::move(*image));
    return images;
  }
  const bool fat64 = magic == kFatMagic64;
  const std::size_t entrySize = fat64 ? 32 : 20;
  std::uint32_t count = bigEndian32(file, 4);
  if (count > kMaxFatArchitectures) return images;
  for (std::uint32_t i = 0; i < count; ++i) {
    std::size_t entry = 8 + i * entrySize;
    if (entry + entrySize > file.size()) break;
    std::uint64_t offset = fat64 ? bigEndian64(file, entry + 8) : bigEndian32(file, entry + 8);
    std::uint64_t size = fat64 ? bigEndian64(file, entry + 16) : bigEndian32(file, entry + 12);
    if (offset > file.size() || size > file.size() - offset) continue;
    auto image = readMachOImage(file.subspan(static_cast<std::size_t>(offset), static_cast<std::size_t>(size)));
    if (image) images.push_back(std::move(*image));
  }
  return images;
}

}  // namespace symlift::symbols::dwarf
