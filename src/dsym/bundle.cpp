#include "dsym/bundle.h"

#include <system_error>

namespace symlift::dsym {

std::shared_ptr<SUPBundle> SUPBundle::bundleWithURL(const std::filesystem::path& url) {
  std::error_code ec;
  if (url.empty() || !std::filesystem::is_directory(url, ec)) return nullptr;
  return std::make_shared<SUPBundle>(url);
}

SUPBundle::SUPBundle(std::filesystem::path url)
    : url_(std::move(url)), info_(support::PropertyList::fromFile((url_ / "Contents" / "Info.plist").string())) {}

std::optional<std::string> SUPBundle::bundleIdentifier() const {
  return objectForInfoDictionaryKey("CFBundleIdentifier");
}

std::optional<std::string> SUPBundle::objectForInfoDictionaryKey(const char* key) const {
  if (!info_.isDictionary()) return std::nullopt;
  return info_.stringForKey(key);
}

}  // namespace symlift::dsym
