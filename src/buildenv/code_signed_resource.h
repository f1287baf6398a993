#pragma once
// A record describing a signed bundle: where it is, who it claims to be,
// its versions, when it was made and the provisioning profile it carries.

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "dsym/bundle.h"

namespace symlift::buildenv {

class SUPCodeSignedResource {
 public:
  using Date = std::chrono::system_clock::time_point;

  std::optional<std::string> path;
  std::optional<std::string> bundleIdentifier;
  std::optional<std::string> displayVersion;
  std::optional<std::string> buildVersion;
  std::optional<Date> creationDate;
  std::optional<std::string> provisioningProfilePath;
  std::shared_ptr<dsym::SUPBundle> bundle;

  std::optional<Date> displayDate() const { return creationDate; }
  // "<SUPCodeSignedResource: 0x… identifier display build date>"; missing
  // values print as "(null)", the date as "YYYY-MM-DD hh:mm:ss +0000".
  std::string description() const;
  // Same creation date, path and bundle identifier (missing equals missing).
  bool isEqual(const SUPCodeSignedResource& other) const;
  bool operator==(const SUPCodeSignedResource& other) const { return isEqual(other); }
};

}  // namespace symlift::buildenv
