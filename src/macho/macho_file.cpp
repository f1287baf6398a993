#include "macho/macho_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "macho/architecture_names.h"

namespace symlift::macho {

namespace {

constexpr std::uint64_t kFatHeaderSize = 8;
constexpr std::uint64_t kFatArchSize = 20;
constexpr std::uint64_t kMachHeaderSize = 28;
constexpr std::uint64_t kMachHeader64Size = 32;
constexpr std::uint64_t kLoadCommandHeaderSize = 8;

// Mach-O headers and load commands are read in the host's order; only the
// fat header is swapped.
std::uint32_t readHost32(const std::uint8_t* p) {
  std::uint32_t value;
  std::memcpy(&value, p, sizeof value);
  return value;
}

std::uint32_t readSwapped32(const std::uint8_t* p) { return __builtin_bswap32(readHost32(p)); }

}  // namespace

SUPMachOVersion SUPMachOVersionDecode(std::uint32_t value) {
  return SUPMachOVersion{value >> 16, (value >> 8) & 0xFF, value & 0xFF};
}

bool SUPMachOFileOpen(SUPMachOFile* file, const char* path) {
  if (file == nullptr || path == nullptr) return false;
  file->fd = 0;
  file->mappedSize = 0;
  file->mappedFile = nullptr;

  // Non-blocking so that a FIFO (refused below) cannot hang the open.
  int fd = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return false;
  struct stat status {};
  if (::fstat(fd, &status) != 0) {
    ::close(fd);
    return false;
  }
  std::uint64_t size = static_cast<std::uint64_t>(status.st_size);
  if (size < kMinimumMachOFileSize || (status.st_mode & S_IFREG) == 0) {
    ::close(fd);
    return false;
  }
  void* mapping = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
  if (mapping == nullptr || mapping == MAP_FAILED) {
    ::close(fd);
    return false;
  }
  file->fd = fd;
  file->mappedSize = size;
  file->mappedFile = static_cast<const std::uint8_t*>(mapping);
  return true;
}

void SUPMachOFileClose(SUPMachOFile* file) {
  if (file == nullptr) return;
  // A record only holds a descriptor once it is mapped (the descriptor may
  // legitimately be 0 when standard input was closed).
  if (file->mappedFile != nullptr && file->mappedSize != 0) {
    ::munmap(const_cast<std::uint8_t*>(file->mappedFile), file->mappedSize);
    ::close(file->fd);
  }
  file->fd = 0;
  file->mappedSize = 0;
  file->mappedFile = nullptr;
}

void SUPMachOFileEnumerateSlices(const std::uint8_t* imageStart, std::uint64_t imageSize,
                                 const SliceVisitor& visitor) {
  if (imageStart == nullptr || !visitor) return;
  std::uint32_t magic = imageSize >= 4 ? readHost32(imageStart) : 0;

  if (magic == kFatMagic || magic == kFatCigam) {
    if (imageSize < kFatHeaderSize) return;
    // The fat fields are big-endian on disk and swapped whichever of the two
    // magics was seen. The 64-bit fat header (CA FE BA BF) is not a fat file
    // here; it goes down the thin path as an unknown magic.
    std::uint64_t count = readSwapped32(imageStart + 4);
    for (std::uint64_t i = 0; i < count; ++i) {
      std::uint64_t entryOffset = kFatHeaderSize + i * kFatArchSize;
      if (entryOffset + kFatArchSize > imageSize) break;  // no more entries fit
      const std::uint8_t* entry = imageStart + entryOffset;
      std::uint64_t offset = readSwapped32(entry + 8);
      if (offset >= imageSize) continue;  // points outside the file
      SUPMachOSliceRecord slice;
      slice.cputype = static_cast<std::int32_t>(readSwapped32(entry));
      slice.cpusubtype = static_cast<std::int32_t>(readSwapped32(entry + 4));
      slice.startAddress = imageStart + offset;
      slice.availableSize = imageSize - offset;
      visitor(slice);
    }
    return;
  }

  SUPMachOSliceRecord slice;
  slice.startAddress = imageStart;
  slice.availableSize = imageSize;
  if ((magic == kMachMagic || magic == kMachMagic64 || magic == kMachCigam || magic == kMachCigam64) &&
      imageSize >= 12) {
    // Read in host order even for the byte-swapped magics.
    slice.cputype = static_cast<std::int32_t>(readHost32(imageStart + 4));
    slice.cpusubtype = static_cast<std::int32_t>(readHost32(imageStart + 8));
  }
  visitor(slice);
}

void SUPMachOSliceEnumerateLoadCommands(SUPMachOSliceRecord* slice, const LoadCommandVisitor& visitor) {
  if (slice == nullptr || !visitor || slice->startAddress == nullptr) return;
  const std::uint8_t* start = slice->startAddress;
  const std::uint64_t available = slice->availableSize;
  if (available < 4) return;

  std::uint32_t magic = readHost32(start);
  std::uint64_t headerSize;
  if (magic == kMachMagic || magic == kMachCigam)
    headerSize = kMachHeaderSize;
  else if (magic == kMachMagic64 || magic == kMachCigam64)
    headerSize = kMachHeader64Size;
  else
    return;
  if (headerSize > available) return;

  slice->cputype = static_cast<std::int32_t>(readHost32(start + 4));
  slice->cpusubtype = static_cast<std::int32_t>(readHost32(start + 8));

  std::uint32_t count = readHost32(start + 16);
  std::uint64_t offset = headerSize;
  for (std::uint32_t i = 0; i < count; ++i) {
    if (offset + kLoadCommandHeaderSize > available) return;
    const std::uint8_t* command = start + offset;
    std::uint32_t type = readHost32(command);
    std::uint32_t size = readHost32(command + 4);
    // A command too small to hold its own header would be visited forever;
    // one running past the end cannot be read.
    if (size < kLoadCommandHeaderSize || size > available - offset) return;
    visitor(type, size, command);
    offset += size;
  }
}

const char* SUPMachOSliceArchitectureName(const SUPMachOSliceRecord* slice) {
  if (slice == nullptr) return "unknown";
  // These four compare the full 32-bit subtype, capability bits included:
  // arm64e with capability bits (0x80000002) goes to the published table.
  const std::uint32_t subtype = static_cast<std::uint32_t>(slice->cpusubtype);
  if (slice->cputype == kCPUTypeARM64 && subtype == 2) return "arm64e";
  if (slice->cputype == kCPUTypeARM64 && subtype == 0) return "arm64";
  if (slice->cputype == kCPUTypeARM && subtype == 11) return "armv7s";
  if (slice->cputype == kCPUTypeARM && subtype == 12) return "armv7k";
  const char* name = publishedArchitectureName(slice->cputype, slice->cpusubtype);
  return name != nullptr ? name : "unknown";
}

SUPMachOSliceRecord SUPMachOSliceGetCurrent() { return SUPMachOSliceRecord{}; }

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

}  // namespace symlift::macho
