#include "dsym/code_mapping.h"

#include "console/console_log.h"

namespace symlift::dsym {

std::shared_ptr<SUPCodeMapping> SUPCodeMapping::mappingWithURL(const std::filesystem::path& dwarfURL,
                                                               const std::filesystem::path& bundleURL) {
  return std::make_shared<SUPCodeMapping>(dwarfURL, bundleURL);
}

SUPCodeMapping::SUPCodeMapping(const std::filesystem::path& dwarfURL, const std::filesystem::path&)
    : url_(dwarfURL) {}

std::shared_ptr<SUPDSYMFile> SUPDSYMFile::mappingWithURL(const std::filesystem::path& dwarfURL,
                                                         const std::filesystem::path& bundleURL) {
  return initWithDWARFURL(dwarfURL, bundleURL);
}

std::shared_ptr<SUPDSYMFile> SUPDSYMFile::initWithDWARFURL(const std::filesystem::path& dwarfURL,
                                                           const std::filesystem::path& bundleURL) {
  auto dsym = SUPdSYM::dSYMWithDWARFURL(dwarfURL, bundleURL);
  if (!dsym) return nullptr;
  return std::make_shared<SUPDSYMFile>(Token{}, dwarfURL, bundleURL, std::move(dsym));
}

std::shared_ptr<SUPDSYMFile> SUPDSYMFile::mappingWithURL(const std::filesystem::path& dwarfURL,
                                                         const std::filesystem::path& bundleURL,
                                                         symbols::SymbolFileCache& cache) {
  return initWithDWARFURL(dwarfURL, bundleURL, cache);
}

std::shared_ptr<SUPDSYMFile> SUPDSYMFile::initWithDWARFURL(const std::filesystem::path& dwarfURL,
                                                           const std::filesystem::path& bundleURL,
                                                           symbols::SymbolFileCache& cache) {
  auto dsym = SUPdSYM::dSYMWithDWARFURL(dwarfURL, bundleURL, cache);
  if (!dsym) return nullptr;
  return std::make_shared<SUPDSYMFile>(Token{}, dwarfURL, bundleURL, std::move(dsym));
}

SUPDSYMFile::SUPDSYMFile(Token, const std::filesystem::path& dwarfURL, const std::filesystem::path& bundleURL,
                         std::shared_ptr<SUPdSYM> dsym)
    : SUPCodeMapping(dwarfURL, bundleURL), dsym_(std::move(dsym)) {}

void SUPDSYMFile::enumerateUUIDs(const macho::SUPMachOBinary::UUIDVisitor& visitor) const {
  if (dsym_) dsym_->enumerateUUIDs(visitor);
}

std::set<std::string> SUPDSYMFile::uuidSet() const {
  std::set<std::string> uuids;
  enumerateUUIDs([&uuids](const std::optional<std::string>& uuid, const std::string& architectureName) {
    if (uuid)
      uuids.insert(*uuid);
    else
      console::SYLLogWarning("unable to extract dSYM uuid for architecture {}", architectureName);
  });
  return uuids;
}

}  // namespace symlift::dsym
