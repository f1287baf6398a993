#include "dsym/dsym.h"

namespace symlift::dsym {

namespace {
constexpr std::string_view kDSYMIdentifierPrefix = "com.apple.xcode.dsym.";
}

std::shared_ptr<SUPdSYM> SUPdSYM::dSYMWithDWARFURL(const std::filesystem::path& dwarfURL,
                                                   const std::filesystem::path& bundleURL) {
  return initWithDWARFURL(dwarfURL, bundleURL);
}

std::shared_ptr<SUPdSYM> SUPdSYM::initWithDWARFURL(const std::filesystem::path& dwarfURL,
                                                   const std::filesystem::path& bundleURL) {
  auto bundle = SUPBundle::bundleWithURL(bundleURL);
  if (!bundle) return nullptr;
  return std::make_shared<SUPdSYM>(Token{}, std::move(bundle), macho::SUPMachOBinary::initWithURL(dwarfURL));
}

std::shared_ptr<SUPdSYM> SUPdSYM::dSYMWithDWARFURL(const std::filesystem::path& dwarfURL,
                                                   const std::filesystem::path& bundleURL,
                                                   symbols::SymbolFileCache& cache) {
  auto bundle = SUPBundle::bundleWithURL(bundleURL);
  if (!bundle) return nullptr;
  auto binary = dwarfURL.empty() ? nullptr
                                 : macho::SUPMachOBinary::binaryWithFile(dwarfURL, cache.machOFile(dwarfURL.string()));
  return std::make_shared<SUPdSYM>(Token{}, std::move(bundle), std::move(binary));
}

SUPdSYM::SUPdSYM(Token, std::shared_ptr<SUPBundle> bundle, std::shared_ptr<macho::SUPMachOBinary> binary)
    : bundle_(std::move(bundle)), binary_(std::move(binary)) {}

std::optional<std::string> SUPdSYM::bundleIdentifier() const {
  std::optional<std::string> identifier = bundle_->bundleIdentifier();
  if (identifier && identifier->starts_with(kDSYMIdentifierPrefix))
    return identifier->substr(kDSYMIdentifierPrefix.size());
  return identifier;
}

std::optional<std::filesystem::path> SUPdSYM::executableURL() const {
  if (!binary_) return std::nullopt;
  return binary_->URL();
}

std::optional<std::string> SUPdSYM::executablePath() const {
  if (!binary_) return std::nullopt;
  return binary_->path();
}

std::optional<std::string> SUPdSYM::bundleVersion() const {
  return bundle_->objectForInfoDictionaryKey("CFBundleVersion");
}

std::optional<std::string> SUPdSYM::shortBundleVersion() const {
  return bundle_->objectForInfoDictionaryKey("CFBundleShortVersionString");
}

void SUPdSYM::enumerateUUIDs(const macho::SUPMachOBinary::UUIDVisitor& visitor) const {
  if (binary_) binary_->enumerateUUIDs(visitor);
}

}  // namespace symlift::dsym
