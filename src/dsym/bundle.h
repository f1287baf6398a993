#pragma once
// A bundle directory and its Info dictionary ("Contents/Info.plist").

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "support/property_list.h"

namespace symlift::dsym {

class SUPBundle {
 public:
  // Nothing when url is not a directory. A bundle without an Info.plist (or
  // with an unreadable one) has an empty Info dictionary.
  static std::shared_ptr<SUPBundle> bundleWithURL(const std::filesystem::path& url);

  explicit SUPBundle(std::filesystem::path url);

  const std::filesystem::path& bundleURL() const { return url_; }
  const support::PropertyList& infoDictionary() const { return info_; }
  // The Info value "CFBundleIdentifier".
  std::optional<std::string> bundleIdentifier() const;
  // A string (or number, as text) from the Info dictionary.
  std::optional<std::string> objectForInfoDictionaryKey(const char* key) const;

 private:
  std::filesystem::path url_;
  support::PropertyList info_;
};

}  // namespace symlift::dsym
