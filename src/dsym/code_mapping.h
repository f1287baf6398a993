#pragma once
// A symbol source: SUPCodeMapping is the general notion (a file and a source
// kind), SUPDSYMFile the one whose source is a DWARF file inside a dSYM.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "dsym/dsym.h"

namespace symlift::dsym {

class SUPCodeMapping {
 public:
  // The base keeps the DWARF URL and ignores the bundle URL.
  static std::shared_ptr<SUPCodeMapping> mappingWithURL(const std::filesystem::path& dwarfURL,
                                                        const std::filesystem::path& bundleURL);
  SUPCodeMapping(const std::filesystem::path& dwarfURL, const std::filesystem::path& bundleURL);
  virtual ~SUPCodeMapping() = default;

  const std::filesystem::path& URL() const { return url_; }
  std::int32_t source() const { return source_; }
  void setSource(std::int32_t source) { source_ = source; }
  const std::optional<std::string>& sourceName() const { return sourceName_; }

 private:
  std::filesystem::path url_;
  std::int32_t source_ = 0;
  std::optional<std::string> sourceName_;
};

class SUPDSYMFile : public SUPCodeMapping {
  struct Token {};

 public:
  // Nothing when the dSYM cannot be created (the bundle URL is not a
  // directory).
  static std::shared_ptr<SUPDSYMFile> mappingWithURL(const std::filesystem::path& dwarfURL,
                                                     const std::filesystem::path& bundleURL);
  static std::shared_ptr<SUPDSYMFile> initWithDWARFURL(const std::filesystem::path& dwarfURL,
                                                       const std::filesystem::path& bundleURL);
  // The same over the run's one mapping of the DWARF file.
  static std::shared_ptr<SUPDSYMFile> mappingWithURL(const std::filesystem::path& dwarfURL,
                                                     const std::filesystem::path& bundleURL,
                                                     symbols::SymbolFileCache& cache);
  static std::shared_ptr<SUPDSYMFile> initWithDWARFURL(const std::filesystem::path& dwarfURL,
                                                       const std::filesystem::path& bundleURL,
                                                       symbols::SymbolFileCache& cache);

  SUPDSYMFile(Token, const std::filesystem::path& dwarfURL, const std::filesystem::path& bundleURL,
              std::shared_ptr<SUPdSYM> dsym);

  const std::shared_ptr<SUPdSYM>& dsym() const { return dsym_; }
  void setDsym(std::shared_ptr<SUPdSYM> dsym) { dsym_ = std::move(dsym); }

  void enumerateUUIDs(const macho::SUPMachOBinary::UUIDVisitor& visitor) const;
  // The slices' UUIDs, duplicates collapsed. A slice without one is left out
  // with the warning "unable to extract dSYM uuid for architecture <name>".
  std::set<std::string> uuidSet() const;

 private:
  std::shared_ptr<SUPdSYM> dsym_;
};

}  // namespace symlift::dsym
