#pragma once
// One Mach-O file, thin or universal (fat), mapped once and read once: the
// fat header, and the header and load commands of every slice. Everything
// else in the program that wants to know about the file's slices (the dSYM
// model, the symbol reader, the validator) asks this one object.
//
// The file is seen two ways, both made by the same walk:
//  - slices(): the slices as the platform's Mach-O API reports them, which
//    name and identify a file (UUIDs, architecture names, linked dylibs,
//    version minimums). Every 32-bit fat entry whose offset lies inside the
//    file is a slice, read up to the end of the file; the fields of a fat
//    header are swapped whichever fat magic was seen; a file that is not fat
//    (a 64-bit fat header included) is one slice, whatever its magic.
//  - images(): the Mach-O images the symbol reader reads, as LLVM's object
//    reader finds them: 32- and 64-bit fat headers of at most 64 entries,
//    each image exactly as long as its fat entry says and only when it holds
//    a Mach-O header; of a byte-swapped image only the header is read.
// Both never read outside the file: a command that runs past the end, one too
// small to hold its own type and size, or a count larger than the commands
// that fit ends the walk, and each such place is reported to the diagnostics
// sink. Well-formed files are not affected by any of these checks.

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "macho/mapped_file.h"

namespace symlift::support {
class DiagnosticsSink;
}

namespace symlift::macho {

inline constexpr std::uint32_t kMachOFileObject = 0x1;
inline constexpr std::uint32_t kMachOFileDylib = 0x6;
inline constexpr std::uint32_t kMachOFileBundle = 0x8;
inline constexpr std::uint32_t kMachOFileDsym = 0xa;

// The platform refuses to open files shorter than this as Mach-O binaries.
inline constexpr std::uint64_t kMinimumMachOFileSize = 16;

struct SUPMachOVersion {
  std::uint32_t major = 0;
  std::uint32_t minor = 0;
  std::uint32_t bugfix = 0;
  friend bool operator==(const SUPMachOVersion&, const SUPMachOVersion&) = default;
};

// A packed xxxx.yy.zz version as version-minimum commands store it.
SUPMachOVersion SUPMachOVersionDecode(std::uint32_t value);
// The 16 bytes as 32 lower-case hexadecimal digits, no dashes.
std::string SUPMachOUUIDString(const std::uint8_t* bytes);

// One slice as the platform reports it; copies, not views.
struct MachOSliceFacts {
  // Of the slice's own header (read in host order, even when byte-swapped);
  // the fat entry's (0 for a thin file) when it has no readable header.
  std::int32_t cputype = 0;
  std::int32_t cpusubtype = 0;  // full 32 bits, capability bits included
  std::optional<std::string> uuid;        // the last UUID command's, 32 hex digits
  std::vector<std::string> linkedDylibs;  // plain load-dylib commands, in order
  // From the last version-minimum command; the build-version command is
  // deliberately not read.
  SUPMachOVersion minimumOSVersion;
  SUPMachOVersion linkedSDKVersion;
};

struct MachOSection {
  std::string_view segmentName;  // views into the file
  std::string_view sectionName;
  std::uint64_t address = 0;
  std::uint64_t size = 0;
  std::uint32_t fileOffset = 0;  // relative to the image; 0 when it has no contents
};

// One image as the symbol reader reads it; the views point into the file.
struct MachOImage {
  Bytes bytes;  // the whole image
  std::int32_t cputype = 0;
  std::int32_t cpusubtype = 0;
  std::uint32_t fileType = 0;
  bool is64Bit = false;
  bool bigEndian = false;  // byte-swapped: nothing past the header is read
  std::optional<std::array<std::uint8_t, 16>> uuid;  // the last UUID command's
  std::uint64_t textSegmentAddress = 0;
  std::optional<MachOSection> textSection;  // the first __TEXT,__text
  std::vector<MachOSection> sections;       // in load-command order (n_sect - 1)
  // LC_SYMTAB, as offsets relative to the image (checked when used).
  bool hasSymbolTable = false;
  std::uint32_t symbolOffset = 0;
  std::uint32_t symbolCount = 0;
  std::uint32_t stringOffset = 0;
  std::uint32_t stringSize = 0;
  std::uint64_t fileOffset = 0;  // of the image in the file, for reports

  // The contents of the first section with these names, when they lie
  // inside the image; empty otherwise.
  Bytes sectionContents(std::string_view segment, std::string_view section) const;
};

struct MachOLayout {
  std::vector<MachOSliceFacts> slices;
  std::vector<MachOImage> images;
};

// Both views of the file held in bytes; damage is reported under fileName.
MachOLayout readMachOLayout(Bytes bytes, support::DiagnosticsSink* diagnostics = nullptr,
                            const std::string& fileName = {});

class MachOFile {
  struct Token {};

 public:
  // Maps the file and reads its layout; nothing when it cannot be mapped
  // (see MappedFile::open). Any regular file maps, even one too short or too
  // damaged to hold a single slice.
  static std::shared_ptr<const MachOFile> open(const std::string& path,
                                               support::DiagnosticsSink* diagnostics = nullptr);

  MachOFile(Token, std::string path, MappedFile mapping, support::DiagnosticsSink* diagnostics);

  const std::string& path() const { return path_; }
  Bytes bytes() const { return mapping_.bytes(); }
  const std::vector<MachOSliceFacts>& slices() const { return layout_.slices; }
  const std::vector<MachOImage>& images() const { return layout_.images; }

  // The whole pages within these bytes of the file leave memory until they
  // are touched again.
  void release(Bytes bytes) const { mapping_.release(bytes); }
  // Whether the file was found cut short while it was read (see MappedFile).
  bool cutShort() const { return mapping_.cutShort(); }

 private:
  std::string path_;
  MappedFile mapping_;
  MachOLayout layout_;
};

}  // namespace symlift::macho
