#pragma once
// A whole regular file mapped read-only, unmapped when the object goes.
//
// A file cut short while it is mapped (another program truncating it) would
// end the process with SIGBUS on the first read past its new end. Instead, a
// page that can no longer be read is replaced by a page of zeros (the
// readers take any bytes) and the mapping remembers that it was cut short,
// so whoever read it can refuse the result.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace symlift::macho {

using Bytes = std::span<const std::uint8_t>;

class MappedFile {
 public:
  // Nothing when the path cannot be opened, is not a regular file or cannot
  // be mapped. The open does not block, so a FIFO is refused rather than
  // waited on. An empty file maps to no bytes.
  static std::optional<MappedFile> open(const std::string& path);

  MappedFile(MappedFile&& other) noexcept;
  MappedFile& operator=(MappedFile&& other) noexcept;
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;
  ~MappedFile();

  Bytes bytes() const { return {static_cast<const std::uint8_t*>(address_), size_}; }

  // The pages wholly inside range (a part of bytes()) leave the process's
  // memory; touched again, they are read back from the file. What the
  // bytes say does not change. Large DWARF files are read slice by slice,
  // and this keeps only the slice being read in memory.
  void release(Bytes range) const;

  // Whether a read found the file shorter than when it was mapped.
  bool cutShort() const;

 private:
  MappedFile(void* address, std::size_t size, int guard) : address_(address), size_(size), guard_(guard) {}

  void* address_ = nullptr;
  std::size_t size_ = 0;
  int guard_ = -1;  // the mapping's place among the guarded ones, or -1
};

}  // namespace symlift::macho
