#pragma once
// A Mach-O file, thin or universal (fat), with one SUPMachOSlice per
// architecture slice: a view over the file's one mapping (MachOFile). Only
// the headers and load commands are ever read through it, so large DWARF
// files cost no more than their headers.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "macho/macho_file.h"
#include "macho/macho_slice.h"

namespace symlift::macho {

class SUPMachOBinary {
  struct Token {};

 public:
  using UUIDVisitor =
      std::function<void(const std::optional<std::string>& uuid, const std::string& architectureName)>;

  // A binary for the file at path, mapped here for this binary alone;
  // nothing when it cannot be opened and mapped or is shorter than 16 bytes.
  static std::shared_ptr<SUPMachOBinary> MachOBinaryWithPath(const std::string& path);
  static std::shared_ptr<SUPMachOBinary> initWithURL(const std::filesystem::path& url);
  // A binary over a file mapped already (the run's one mapping of it), with
  // the same refusals as above; nothing without a file.
  static std::shared_ptr<SUPMachOBinary> binaryWithFile(const std::filesystem::path& url,
                                                        std::shared_ptr<const MachOFile> file);

  // The slices of an image held in memory, read exactly as those of a file.
  static std::vector<std::shared_ptr<SUPMachOSlice>> slicesOfImage(const std::uint8_t* bytes, std::size_t size);

  SUPMachOBinary(Token, std::filesystem::path url, std::shared_ptr<const MachOFile> file);
  SUPMachOBinary(const SUPMachOBinary&) = delete;
  SUPMachOBinary& operator=(const SUPMachOBinary&) = delete;

  const std::filesystem::path& URL() const { return url_; }
  std::string path() const { return url_.string(); }
  const std::shared_ptr<const MachOFile>& file() const { return file_; }
  // In the order of the fat header; a thin file has exactly one.
  const std::vector<std::shared_ptr<SUPMachOSlice>>& slices() const { return slices_; }

  // Once per slice, in list order, with its UUID (or nothing) and name.
  void enumerateUUIDs(const UUIDVisitor& visitor) const;
  // The first slice whose name equals architectureName exactly, or nothing.
  std::shared_ptr<SUPMachOSlice> sliceForArchitecture(std::string_view architectureName) const;
  // The SHA-1 (40 lower-case hex digits) of the slices' UUIDs concatenated
  // in the order of their architecture names, so it does not depend on the
  // order of the fat header. Nothing when a slice has no UUID: such a file
  // has no identity. Computed once.
  std::optional<std::string> instanceIdentifier() const;

  // SHA-1 of the string's UTF-8 bytes up to its first NUL, as 40 lower-case
  // hexadecimal digits.
  static std::string hashNSString(std::string_view string);

 private:
  std::filesystem::path url_;
  std::shared_ptr<const MachOFile> file_;
  std::vector<std::shared_ptr<SUPMachOSlice>> slices_;
  mutable std::optional<std::string> instanceIdentifier_;
};

}  // namespace symlift::macho
