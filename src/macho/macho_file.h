#pragma once
// The plain records under the Mach-O classes and the free functions that work
// on them: opening and mapping a file, walking the fat header and a slice's
// load commands, naming a slice's architecture and rendering a UUID.
//
// These functions read untrusted bytes. Every fat entry, Mach-O header and
// load command is checked against the bytes that are really there: a command
// that runs past the end, a command of size 0 (or too small to hold its own
// type and size) or a count larger than the commands that fit ends the walk,
// and a fat entry whose offset lies outside the image yields no slice.
// Well-formed files are not affected by any of these checks.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace symlift::macho {

inline constexpr std::uint32_t kFatMagic = 0xCAFEBABEu;
inline constexpr std::uint32_t kFatCigam = 0xBEBAFECAu;
inline constexpr std::uint32_t kMachMagic = 0xFEEDFACEu;
inline constexpr std::uint32_t kMachCigam = 0xCEFAEDFEu;
inline constexpr std::uint32_t kMachMagic64 = 0xFEEDFACFu;
inline constexpr std::uint32_t kMachCigam64 = 0xCFFAEDFEu;

inline constexpr std::uint32_t kLoadCommandLoadDylib = 0x0C;
inline constexpr std::uint32_t kLoadCommandUUID = 0x1B;
inline constexpr std::uint32_t kLoadCommandVersionMinMacOSX = 0x24;
inline constexpr std::uint32_t kLoadCommandVersionMinIPhoneOS = 0x25;
inline constexpr std::uint32_t kLoadCommandVersionMinTvOS = 0x2F;
inline constexpr std::uint32_t kLoadCommandVersionMinWatchOS = 0x30;
inline constexpr std::uint32_t kLoadCommandBuildVersion = 0x32;

// Files shorter than this are not opened at all.
inline constexpr std::uint64_t kMinimumMachOFileSize = 16;

// An opened, read-only mapped file. The descriptor stays open while mapped.
struct SUPMachOFile {
  std::int32_t fd = 0;
  std::uint64_t mappedSize = 0;
  const std::uint8_t* mappedFile = nullptr;
};

namespace records {

// One thin image inside a file or in memory. The record and the class
// `macho::SUPMachOSlice` share a name; this one lives in `records`.
struct SUPMachOSlice {
  const std::uint8_t* startAddress = nullptr;  // the slice's Mach-O header
  std::int32_t cputype = 0;                    // 0 when unknown
  std::int32_t cpusubtype = 0;                 // full 32 bits, capability bits included
  // Bytes readable from startAddress to the end of the image; the walk of the
  // load commands never looks past them.
  std::uint64_t availableSize = 0;
};

}  // namespace records

using SUPMachOSliceRecord = records::SUPMachOSlice;

struct SUPMachOVersion {
  std::uint32_t major = 0;
  std::uint32_t minor = 0;
  std::uint32_t bugfix = 0;
  friend bool operator==(const SUPMachOVersion&, const SUPMachOVersion&) = default;
};

// A packed xxxx.yy.zz version as version-minimum commands store it.
SUPMachOVersion SUPMachOVersionDecode(std::uint32_t value);

using SliceVisitor = std::function<void(const SUPMachOSliceRecord& slice)>;
// (command type, command size, first byte of the command); the whole command
// (size bytes) is readable.
using LoadCommandVisitor =
    std::function<void(std::uint32_t type, std::uint32_t size, const std::uint8_t* command)>;

// Opens and maps the file at path. False when the path is missing, cannot be
// opened or queried, is shorter than 16 bytes, is not a regular file or
// cannot be mapped; the descriptor is closed again in every such case.
bool SUPMachOFileOpen(SUPMachOFile* file, const char* path);

// Unmaps and closes. Does nothing when given no record.
void SUPMachOFileClose(SUPMachOFile* file);

// Calls the visitor once per slice of the image of imageSize bytes: once per
// fat entry (the fat fields are big-endian), or exactly once for anything
// else, including an unknown magic (CPU type 0).
void SUPMachOFileEnumerateSlices(const std::uint8_t* imageStart, std::uint64_t imageSize,
                                 const SliceVisitor& visitor);

// Walks the slice's load commands. Overwrites the record's cputype and
// cpusubtype with those of the slice's own Mach-O header.
void SUPMachOSliceEnumerateLoadCommands(SUPMachOSliceRecord* slice, const LoadCommandVisitor& visitor);

// "arm64e", "arm64", "armv7s", "armv7k" by exact CPU type and subtype, else
// the published table's name, else "unknown".
const char* SUPMachOSliceArchitectureName(const SUPMachOSliceRecord* slice);

// The running process's own image and architecture. This platform has no
// dynamic-loader query for them: the record has no start and 0/0.
SUPMachOSliceRecord SUPMachOSliceGetCurrent();

// The 16 bytes as 32 lower-case hexadecimal digits, no dashes.
std::string SUPMachOUUIDString(const std::uint8_t* bytes);

}  // namespace symlift::macho
