#pragma once
// A whole file mapped read-only into memory; unmapped on destruction.

#include <memory>
#include <string>

#include "symbols/dwarf/byte_reader.h"

namespace symlift::symbols::dwarf {

class MappedFile {
 public:
  // Nothing when the file cannot be opened or mapped (an empty file maps to
  // an empty span).
  static std::shared_ptr<MappedFile> open(const std::string& path);
  ~MappedFile();
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  Bytes bytes() const { return {static_cast<const std::uint8_t*>(address_), size_}; }

  // Tells the system the pages wholly inside range (a part of bytes()) are
  // not needed for now: they leave the process's memory and are read again
  // from the file if touched later. The contents seen do not change.
  void release(Bytes range) const;

  // Only open() makes one.
  struct Key {
   private:
    Key() = default;
    friend class MappedFile;
  };
  MappedFile(Key, void* address, std::size_t size) : address_(address), size_(size) {}

 private:
  void* address_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace symlift::symbols::dwarf
