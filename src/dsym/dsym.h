#pragma once
// One dSYM bundle seen through one of its DWARF files: the bundle's Info
// values and the DWARF file's Mach-O slices.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "dsym/bundle.h"
#include "macho/macho_binary.h"
#include "symbols/symbol_file_cache.h"

namespace symlift::dsym {

class SUPdSYM {
  struct Token {};

 public:
  // Nothing when bundleURL is not a directory. A DWARF file that cannot be
  // mapped still gives a dSYM, one without a binary and so without slices.
  static std::shared_ptr<SUPdSYM> dSYMWithDWARFURL(const std::filesystem::path& dwarfURL,
                                                   const std::filesystem::path& bundleURL);
  static std::shared_ptr<SUPdSYM> initWithDWARFURL(const std::filesystem::path& dwarfURL,
                                                   const std::filesystem::path& bundleURL);
  // The same over the run's one mapping of the DWARF file.
  static std::shared_ptr<SUPdSYM> dSYMWithDWARFURL(const std::filesystem::path& dwarfURL,
                                                   const std::filesystem::path& bundleURL,
                                                   symbols::SymbolFileCache& cache);

  SUPdSYM(Token, std::shared_ptr<SUPBundle> bundle, std::shared_ptr<macho::SUPMachOBinary> binary);

  const std::shared_ptr<SUPBundle>& bundle() const { return bundle_; }
  const std::shared_ptr<macho::SUPMachOBinary>& binary() const { return binary_; }

  // The bundle's identifier without the "com.apple.xcode.dsym." prefix that
  // Xcode puts on every dSYM; other identifiers are returned unchanged.
  std::optional<std::string> bundleIdentifier() const;
  // The binary's URL and path; nothing without a binary.
  std::optional<std::filesystem::path> executableURL() const;
  std::optional<std::string> executablePath() const;
  std::optional<std::string> bundleVersion() const;       // "CFBundleVersion"
  std::optional<std::string> shortBundleVersion() const;  // "CFBundleShortVersionString"

  // Forwards to the binary; does nothing without one.
  void enumerateUUIDs(const macho::SUPMachOBinary::UUIDVisitor& visitor) const;

 private:
  std::shared_ptr<SUPBundle> bundle_;
  std::shared_ptr<macho::SUPMachOBinary> binary_;
};

}  // namespace symlift::dsym
