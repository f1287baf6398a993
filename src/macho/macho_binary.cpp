#include "macho/macho_binary.h"

#include <openssl/sha.h>

#include <algorithm>

namespace symlift::macho {

std::shared_ptr<SUPMachOBinary> SUPMachOBinary::MachOBinaryWithPath(const std::string& path) {
  return initWithURL(std::filesystem::path(path));
}

std::shared_ptr<SUPMachOBinary> SUPMachOBinary::initWithURL(const std::filesystem::path& url) {
  if (url.empty()) return nullptr;
  return binaryWithFile(url, MachOFile::open(url.string()));
}

std::shared_ptr<SUPMachOBinary> SUPMachOBinary::binaryWithFile(const std::filesystem::path& url,
                                                               std::shared_ptr<const MachOFile> file) {
  if (!file || file->bytes().size() < kMinimumMachOFileSize) return nullptr;
  return std::make_shared<SUPMachOBinary>(Token{}, url, std::move(file));
}

std::vector<std::shared_ptr<SUPMachOSlice>> SUPMachOBinary::slicesOfImage(const std::uint8_t* bytes,
                                                                           std::size_t size) {
  if (bytes == nullptr) return {};
  auto facts = std::make_shared<const std::vector<MachOSliceFacts>>(readMachOLayout(Bytes(bytes, size)).slices);
  std::vector<std::shared_ptr<SUPMachOSlice>> slices;
  for (const MachOSliceFacts& slice : *facts)
    slices.push_back(std::make_shared<SUPMachOSlice>(std::shared_ptr<const MachOSliceFacts>(facts, &slice)));
  return slices;
}

SUPMachOBinary::SUPMachOBinary(Token, std::filesystem::path url, std::shared_ptr<const MachOFile> file)
    : url_(std::move(url)), file_(std::move(file)) {
  // Each slice shares the file's ownership, so the facts stay as long as it does.
  for (const MachOSliceFacts& slice : file_->slices())
    slices_.push_back(std::make_shared<SUPMachOSlice>(std::shared_ptr<const MachOSliceFacts>(file_, &slice)));
}

void SUPMachOBinary::enumerateUUIDs(const UUIDVisitor& visitor) const {
  if (!visitor) return;
  for (const auto& slice : slices_) visitor(slice->uuid(), slice->architectureName());
}

std::shared_ptr<SUPMachOSlice> SUPMachOBinary::sliceForArchitecture(std::string_view architectureName) const {
  for (const auto& slice : slices_) {
    if (slice->architectureName() == architectureName) return slice;
  }
  return nullptr;
}

std::optional<std::string> SUPMachOBinary::instanceIdentifier() const {
  if (instanceIdentifier_) return instanceIdentifier_;
  std::vector<std::shared_ptr<SUPMachOSlice>> sorted = slices_;
  std::stable_sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) {
    return a->architectureName() < b->architectureName();
  });
  std::string uuids;
  for (const auto& slice : sorted) {
    if (!slice->uuid()) return std::nullopt;
    uuids += *slice->uuid();
  }
  instanceIdentifier_ = hashNSString(uuids);
  return instanceIdentifier_;
}

std::string SUPMachOBinary::hashNSString(std::string_view string) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string_view bytes = string.substr(0, std::min(string.find('\0'), string.size()));
  unsigned char digest[SHA_DIGEST_LENGTH];
  SHA1(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest);
  std::string text;
  text.reserve(2 * SHA_DIGEST_LENGTH);
  for (unsigned char byte : digest) {
    text.push_back(kDigits[byte >> 4]);
    text.push_back(kDigits[byte & 0x0F]);
  }
  return text;
}

}  // namespace symlift::macho
