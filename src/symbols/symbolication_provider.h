#pragma once
// The operations the symbol processor needs from a symbolication reader:
// one symbolicator per architecture slice of a file, its symbol owners with
// base address, UUID and kind, the code symbols of the "__TEXT __text" region
// with their names and address ranges, and per symbol its source records.
//
// Views (std::string_view, std::span) handed to a visitor are valid only for
// the duration of that visitor call; the objects passed by reference likewise.
// A symbolicator handed over by shared pointer holds its slice's symbols for
// as long as someone holds it.

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "macho/macho_file.h"

namespace symlift::dispatch {
class ThreadPool;
}
namespace symlift::support {
class DiagnosticsSink;
}

namespace symlift::symbols {

struct SymbolicationArchitecture {
  std::int32_t cputype = 0;
  std::int32_t cpusubtype = 0;  // full 32 bits, capability bits included

  // A 64-bit ABI (CPU_ARCH_ABI64 set); arm64_32 is not 64-bit.
  bool is64Bit() const { return (static_cast<std::uint32_t>(cputype) & 0xff000000u) == 0x01000000u; }
  bool isX86_64() const { return cputype == 0x01000007; }
  // The family name from the published architecture table ("unknown" when
  // the CPU type is not in it).
  std::string familyName() const;
};

// One line-table record of a symbol: a source position and the address range
// it covers. Addresses are absolute (not relative to the base address).
struct SourceInfo {
  std::string_view path;  // full path; empty when unknown
  std::uint64_t line = 0;
  std::uint64_t address = 0;
  std::uint64_t length = 0;
};

// One code symbol of the "__TEXT __text" region.
struct SymbolInfo {
  std::optional<std::string_view> mangledName;  // as the symbol table or DWARF names it
  std::optional<std::string_view> name;         // demangled (or plain) name
  std::uint64_t address = 0;
  std::uint64_t length = 0;
  // In address order; may be empty.
  std::span<const SourceInfo> sourceInfos;
};

class SymbolOwner {
 public:
  virtual ~SymbolOwner() = default;
  virtual std::uint64_t baseAddress() const = 0;
  virtual std::optional<std::array<std::uint8_t, 16>> uuidBytes() const = 0;
  virtual bool isDsym() const = 0;
  virtual bool isDylib() const = 0;
  virtual bool isDyldSharedCache() const = 0;
  virtual bool isObject() const = 0;
  // Visits the code symbols of the "__TEXT __text" region in address order.
  virtual void forEachTextSymbol(const std::function<void(const SymbolInfo&)>& visitor) const = 0;
  // About how many source records forEachTextSymbol will hand out (to size
  // buffers); 0 when not known.
  virtual std::size_t sourceInfoCountHint() const { return 0; }
  // About how many bytes the names forEachTextSymbol hands out take, a line
  // feed after each (to size buffers); 0 when not known.
  virtual std::size_t nameBytesHint() const { return 0; }
  // The size of the slice the owner was read from; 0 when not known.
  virtual std::uint64_t sliceBytes() const { return 0; }
};

class Symbolicator {
 public:
  virtual ~Symbolicator() = default;
  virtual SymbolicationArchitecture architecture() const = 0;
  // Visits the owners at time 0 (for our reader: the image itself).
  virtual void forEachSymbolOwner(const std::function<void(const SymbolOwner&)>& visitor) const = 0;
};

// The files of a run as a reader sees them (SymbolFileCache is the run's).
class SymbolFiles {
 public:
  virtual ~SymbolFiles() = default;
  // The file's one mapping for the run; nothing when it cannot be mapped.
  virtual std::shared_ptr<const macho::MachOFile> machOFile(const std::string& path) = 0;
  // Where slices are decoded and where damage is reported.
  virtual dispatch::ThreadPool& pool() const = 0;
  virtual support::DiagnosticsSink& diagnostics() const = 0;
};

class SymbolicationProvider {
 public:
  using SymbolicatorVisitor = std::function<void(const std::shared_ptr<const Symbolicator>& symbolicator)>;

  virtual ~SymbolicationProvider() = default;
  // One symbolicator per architecture slice of the file at path, in
  // fat-header order, one visit at a time on the calling thread. The next
  // slice may be read while the visitor works on this one; what its reading
  // reports comes after the visit. A file that cannot be opened gives none.
  virtual void forEachSymbolicatorWithPath(const std::string& path, SymbolFiles& files,
                                           const SymbolicatorVisitor& visitor) const = 0;
};

}  // namespace symlift::symbols
