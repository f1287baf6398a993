#include "macho/macho_file.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <map>

#include "support/diagnostics.h"

namespace symlift::macho {

namespace {

constexpr std::uint32_t kFatMagic = 0xCAFEBABEu;    // as it reads big-endian from the file
constexpr std::uint32_t kFatMagic64 = 0xCAFEBABFu;  // likewise
constexpr std::uint32_t kFatCigam = 0xBEBAFECAu;
constexpr std::uint32_t kMachMagic = 0xFEEDFACEu;  // as they read in host (little-endian) order
constexpr std::uint32_t kMachCigam = 0xCEFAEDFEu;
constexpr std::uint32_t kMachMagic64 = 0xFEEDFACFu;
constexpr std::uint32_t kMachCigam64 = 0xCFFAEDFEu;

constexpr std::uint32_t kLoadSegment = 0x1;
constexpr std::uint32_t kLoadSymtab = 0x2;
constexpr std::uint32_t kLoadDylib = 0x0C;
constexpr std::uint32_t kLoadSegment64 = 0x19;
constexpr std::uint32_t kLoadUUID = 0x1B;
constexpr std::uint32_t kLoadVersionMinMacOSX = 0x24;
constexpr std::uint32_t kLoadVersionMinIPhoneOS = 0x25;
constexpr std::uint32_t kLoadVersionMinTvOS = 0x2F;
constexpr std::uint32_t kLoadVersionMinWatchOS = 0x30;

constexpr std::uint64_t kCommandHeaderSize = 8;
// LLVM's reader gives up on fat headers with more entries, and believes no
// more load commands than this.
constexpr std::uint32_t kMaxImageFatEntries = 64;
constexpr std::size_t kMaxImageLoadCommands = 1u << 16;

// Headers and load commands are read in the host's (little-endian) order,
// fat headers big-endian. Callers check the bounds.
std::uint32_t host32(Bytes bytes, std::uint64_t at) {
  std::uint32_t value;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}
std::uint64_t host64(Bytes bytes, std::uint64_t at) {
  std::uint64_t value;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}
std::uint32_t big32(Bytes bytes, std::uint64_t at) { return __builtin_bswap32(host32(bytes, at)); }
std::uint64_t big64(Bytes bytes, std::uint64_t at) { return __builtin_bswap64(host64(bytes, at)); }

// A fixed-size name field: up to 16 bytes, NUL-terminated when shorter.
std::string_view nameField(Bytes bytes, std::uint64_t at) {
  const char* text = reinterpret_cast<const char*>(bytes.data() + at);
  return {text, ::strnlen(text, 16)};
}

bool isVersionMinimum(std::uint32_t type) {
  return type == kLoadVersionMinMacOSX || type == kLoadVersionMinIPhoneOS || type == kLoadVersionMinTvOS ||
         type == kLoadVersionMinWatchOS;
}

struct Command {
  std::uint64_t offset;  // in the slice
  std::uint32_t type;
  std::uint32_t size;  // at least 8, and the whole command lies inside what was walked
};

// The walk of one slice's header and load commands, over the bytes from the
// slice's start to the end of the file.
struct HeaderWalk {
  std::uint32_t magic = 0;  // host order; 0 when fewer than 4 bytes
  bool hasHeader = false;   // a Mach-O magic and a whole header
  std::int32_t cputype = 0;
  std::int32_t cpusubtype = 0;
  std::uint64_t headerSize = 0;
  std::vector<Command> commands;
};

class LayoutReader {
 public:
  LayoutReader(Bytes file, support::DiagnosticsSink* diagnostics, const std::string& fileName)
      : file_(file), diagnostics_(diagnostics), fileName_(fileName) {}

  MachOLayout read() {
    readSlices();
    readImages();
    return std::move(layout_);
  }

 private:
  void report(const char* section, std::uint64_t offset, std::string text) {
    if (diagnostics_) diagnostics_->report({fileName_, section, offset, std::move(text)});
  }

  // Each slice start is walked once, however many views and entries use it.
  const HeaderWalk& walkAt(std::uint64_t offset) {
    auto found = walks_.find(offset);
    if (found != walks_.end()) return found->second;
    HeaderWalk& walk = walks_[offset];
    const Bytes bytes = file_.subspan(offset);
    if (bytes.size() < 4) return walk;
    walk.magic = host32(bytes, 0);
    if (walk.magic == kMachMagic || walk.magic == kMachCigam) walk.headerSize = 28;
    else if (walk.magic == kMachMagic64 || walk.magic == kMachCigam64) walk.headerSize = 32;
    else return walk;
    if (walk.headerSize > bytes.size()) return walk;
    walk.hasHeader = true;
    walk.cputype = static_cast<std::int32_t>(host32(bytes, 4));
    walk.cpusubtype = static_cast<std::int32_t>(host32(bytes, 8));
    const std::uint32_t count = host32(bytes, 16);
    std::uint64_t at = walk.headerSize;
    for (std::uint32_t i = 0; i < count; ++i) {
      if (at + kCommandHeaderSize > bytes.size()) {
        report("load commands", offset + at,
               fmt::format("{} of {} load commands, which lie past the end of the file", count - i, count));
        break;
      }
      const std::uint32_t type = host32(bytes, at);
      const std::uint32_t size = host32(bytes, at + 4);
      // A command too small to hold its own header would be visited forever.
      if (size < kCommandHeaderSize) {
        report("load commands", offset + at, fmt::format("a load command of size {}, too small for its header", size));
        break;
      }
      if (size > bytes.size() - at) {
        report("load commands", offset + at,
               fmt::format("a load command (type {:#x}, size {}) running past the end of the file", type, size));
        break;
      }
      walk.commands.push_back({at, type, size});
      at += size;
    }
    return walk;
  }

  void addSlice(std::uint64_t offset, std::int32_t fatCputype, std::int32_t fatCpusubtype) {
    const HeaderWalk& walk = walkAt(offset);
    const Bytes bytes = file_.subspan(offset);
    MachOSliceFacts slice;
    slice.cputype = walk.hasHeader ? walk.cputype : fatCputype;
    slice.cpusubtype = walk.hasHeader ? walk.cpusubtype : fatCpusubtype;
    for (const Command& command : walk.commands) {
      const Bytes body = bytes.subspan(command.offset, command.size);
      if (isVersionMinimum(command.type)) {
        if (command.size < 16) continue;
        slice.minimumOSVersion = SUPMachOVersionDecode(host32(body, 8));
        slice.linkedSDKVersion = SUPMachOVersionDecode(host32(body, 12));
      } else if (command.type == kLoadDylib) {
        if (command.size < 12) continue;
        const std::uint32_t nameOffset = host32(body, 8);
        if (nameOffset >= command.size) continue;
        // An install name without its NUL ends at the command's end.
        const char* name = reinterpret_cast<const char*>(body.data() + nameOffset);
        slice.linkedDylibs.emplace_back(name, ::strnlen(name, command.size - nameOffset));
      } else if (command.type == kLoadUUID) {
        if (command.size < 24) continue;
        slice.uuid = SUPMachOUUIDString(body.data() + 8);
      }
    }
    layout_.slices.push_back(std::move(slice));
  }

  // The platform's view: 32-bit fat headers only, in either byte order.
  void readSlices() {
    const std::uint32_t magic = file_.size() >= 4 ? host32(file_, 0) : 0;
    if (magic != kFatMagic && magic != kFatCigam) {
      // Anything else is one slice; its CPU type comes from the first bytes
      // when they look like a Mach-O header, even too short a one.
      std::int32_t cputype = 0, cpusubtype = 0;
      if ((magic == kMachMagic || magic == kMachMagic64 || magic == kMachCigam || magic == kMachCigam64) &&
          file_.size() >= 12) {
        cputype = static_cast<std::int32_t>(host32(file_, 4));
        cpusubtype = static_cast<std::int32_t>(host32(file_, 8));
      }
      addSlice(0, cputype, cpusubtype);
      return;
    }
    if (file_.size() < 8) return;
    const std::uint64_t count = big32(file_, 4);
    for (std::uint64_t i = 0; i < count; ++i) {
      const std::uint64_t entry = 8 + i * 20;
      if (entry + 20 > file_.size()) {
        report("fat header", entry, fmt::format("{} of {} fat entries, which lie past the end of the file", count - i, count));
        break;
      }
      const std::uint64_t offset = big32(file_, entry + 8);
      if (offset >= file_.size()) {
        report("fat header", entry, fmt::format("a fat entry whose slice starts past the end of the file ({:#x})", offset));
        continue;
      }
      addSlice(offset, static_cast<std::int32_t>(big32(file_, entry)), static_cast<std::int32_t>(big32(file_, entry + 4)));
    }
  }

  // LLVM's view: 32- and 64-bit fat headers, big-endian only.
  void readImages() {
    if (file_.size() < 8) return;
    const std::uint32_t magic = big32(file_, 0);
    if (magic != kFatMagic && magic != kFatMagic64) {
      addImage(0, file_.size());
      return;
    }
    const bool fat64 = magic == kFatMagic64;
    const std::uint64_t entrySize = fat64 ? 32 : 20;
    const std::uint32_t count = big32(file_, 4);
    if (count > kMaxImageFatEntries) {
      report("fat header", 4, fmt::format("the symbols of all {} slices (more fat entries than are believed)", count));
      return;
    }
    for (std::uint32_t i = 0; i < count; ++i) {
      const std::uint64_t entry = 8 + i * entrySize;
      if (entry + entrySize > file_.size()) break;  // reported with the platform's view
      const std::uint64_t offset = fat64 ? big64(file_, entry + 8) : big32(file_, entry + 8);
      const std::uint64_t size = fat64 ? big64(file_, entry + 16) : big32(file_, entry + 12);
      if (offset > file_.size() || size > file_.size() - offset) {
        if (offset < file_.size())
          report("fat header", entry, "the symbols of a slice running past the end of the file");
        continue;
      }
      addImage(offset, size);
    }
  }

  void addImage(std::uint64_t offset, std::uint64_t size) {
    const Bytes bytes = file_.subspan(offset, size);
    const HeaderWalk& walk = walkAt(offset);
    MachOImage image;
    image.bytes = bytes;
    image.fileOffset = offset;
    if (walk.magic == kMachCigam || walk.magic == kMachCigam64) {
      if (bytes.size() < 12) return;
      // Big-endian: the architecture is reported, nothing else is read.
      image.bigEndian = true;
      image.is64Bit = walk.magic == kMachCigam64;
      image.cputype = static_cast<std::int32_t>(big32(bytes, 4));
      image.cpusubtype = static_cast<std::int32_t>(big32(bytes, 8));
      if (bytes.size() >= 16) image.fileType = big32(bytes, 12);
      report("load commands", offset, "the load commands of a byte-swapped (big-endian) image");
      layout_.images.push_back(std::move(image));
      return;
    }
    if (walk.magic != kMachMagic && walk.magic != kMachMagic64) return;
    if (walk.headerSize > bytes.size()) return;
    image.is64Bit = walk.magic == kMachMagic64;
    image.cputype = walk.cputype;
    image.cpusubtype = walk.cpusubtype;
    image.fileType = host32(bytes, 12);
    // The commands the walk over the rest of the file found, as far as they
    // lie inside the image.
    std::size_t used = 0;
    for (const Command& command : walk.commands) {
      if (used == kMaxImageLoadCommands) {
        report("load commands", offset + command.offset, "load commands beyond the first 65536");
        break;
      }
      if (command.size > bytes.size() - std::min<std::uint64_t>(command.offset, bytes.size())) {
        report("load commands", offset + command.offset, "a load command running past the end of its slice");
        break;
      }
      readImageCommand(command, bytes.subspan(command.offset, command.size), image);
      ++used;
    }
    layout_.images.push_back(std::move(image));
  }

  void readImageCommand(const Command& command, Bytes body, MachOImage& image) {
    switch (command.type) {
      case kLoadSegment:
      case kLoadSegment64:
        readSegment(body, command.type == kLoadSegment64, image);
        break;
      case kLoadUUID:
        if (body.size() >= 24) {
          std::array<std::uint8_t, 16> uuid{};
          std::memcpy(uuid.data(), body.data() + 8, 16);
          image.uuid = uuid;
        }
        break;
      case kLoadSymtab: {
        // A short command still sets the fields it holds, and leaves the
        // image without a symbol table.
        auto field = [&](std::uint64_t at) { return body.size() >= at + 4 ? host32(body, at) : 0u; };
        image.symbolOffset = field(8);
        image.symbolCount = field(12);
        image.stringOffset = field(16);
        image.stringSize = field(20);
        image.hasSymbolTable = body.size() >= 24;
        break;
      }
      default:
        break;
    }
  }

  void readSegment(Bytes body, bool is64, MachOImage& image) {
    const std::uint64_t headerSize = is64 ? 72 : 56;
    const std::uint64_t sectionSize = is64 ? 80 : 68;
    if (body.size() < headerSize) return;
    const std::string_view segmentName = nameField(body, 8);
    if (segmentName == "__TEXT") image.textSegmentAddress = is64 ? host64(body, 24) : host32(body, 24);
    const std::uint32_t sectionCount = host32(body, is64 ? 64 : 48);
    for (std::uint32_t i = 0; i < sectionCount; ++i) {
      const std::uint64_t at = headerSize + i * sectionSize;
      if (at + sectionSize > body.size()) break;
      MachOSection section;
      section.sectionName = nameField(body, at);
      section.segmentName = nameField(body, at + 16);
      section.address = is64 ? host64(body, at + 32) : host32(body, at + 32);
      section.size = is64 ? host64(body, at + 40) : host32(body, at + 36);
      section.fileOffset = host32(body, at + (is64 ? 48 : 40));
      // A section that would wrap around the address space ends at its top.
      section.size = std::min(section.size, UINT64_MAX - section.address);
      if (section.segmentName == "__DWARF" && section.fileOffset != 0 &&
          (section.fileOffset > image.bytes.size() || section.size > image.bytes.size() - section.fileOffset))
        report("load commands", image.fileOffset + section.fileOffset,
               fmt::format("section {} (its contents lie outside the slice)", section.sectionName));
      if (section.segmentName == "__TEXT" && section.sectionName == "__text" && !image.textSection)
        image.textSection = section;
      image.sections.push_back(section);
    }
  }

  Bytes file_;
  support::DiagnosticsSink* diagnostics_;
  const std::string& fileName_;
  std::map<std::uint64_t, HeaderWalk> walks_;
  MachOLayout layout_;
};

}  // namespace

SUPMachOVersion SUPMachOVersionDecode(std::uint32_t value) {
  return SUPMachOVersion{value >> 16, (value >> 8) & 0xFF, value & 0xFF};
}

std::string SUPMachOUUIDString(const std::uint8_t* bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  if (bytes == nullptr) return text;
  text.reserve(32);
  for (int i = 0; i < 16; ++i) {
    text.push_back(kDigits[bytes[i] >> 4]);
    text.push_back(kDigits[bytes[i] & 0x0F]);
  }
  return text;
}

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

MachOLayout readMachOLayout(Bytes bytes, support::DiagnosticsSink* diagnostics, const std::string& fileName) {
  return LayoutReader(bytes, diagnostics, fileName).read();
}

std::shared_ptr<const MachOFile> MachOFile::open(const std::string& path, support::DiagnosticsSink* diagnostics) {
  std::optional<MappedFile> mapping = MappedFile::open(path);
  if (!mapping) return nullptr;
  return std::make_shared<const MachOFile>(Token{}, path, std::move(*mapping), diagnostics);
}

MachOFile::MachOFile(Token, std::string path, MappedFile mapping, support::DiagnosticsSink* diagnostics)
    : path_(std::move(path)), mapping_(std::move(mapping)), layout_(readMachOLayout(mapping_.bytes(), diagnostics, path_)) {}

}  // namespace symlift::macho
