#pragma once
// Everything one submission needs: the dSYM file, the run's settings and,
// per slice, the UUID, architecture and generated cSYM data. The pipeline
// copies a container once per slice and fills in that slice's values.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "dsym/code_mapping.h"

namespace symlift::dsym {

class SUPCodeMappingInfoContainer {
 public:
  SUPCodeMappingInfoContainer() = default;

  // A new container sharing the same dSYM file (its derived values taken
  // again from it), with the same settings and identifiers. UUID,
  // architecture and data are left empty: each copy is for one slice.
  std::shared_ptr<SUPCodeMappingInfoContainer> copyWithZone() const;

  bool convertOnly() const { return convertOnly_; }
  void setConvertOnly(bool convertOnly) { convertOnly_ = convertOnly; }
  // Cap for choosing the symbolication version; 0 means none.
  float maxCoreSymbolicationVersion() const { return maxCoreSymbolicationVersion_; }
  void setMaxCoreSymbolicationVersion(float version) { maxCoreSymbolicationVersion_ = version; }

  const std::shared_ptr<SUPDSYMFile>& dSYMFile() const { return dSYMFile_; }
  // Also takes URL, buildVersion, displayVersion and dsymBundleID from it.
  void setDSYMFile(std::shared_ptr<SUPDSYMFile> dSYMFile);

  const std::optional<std::string>& UUID() const { return uuid_; }
  void setUUID(std::optional<std::string> uuid) { uuid_ = std::move(uuid); }
  const std::optional<std::string>& architecture() const { return architecture_; }
  void setArchitecture(std::optional<std::string> architecture) { architecture_ = std::move(architecture); }
  // The slice's compressed cSYM; null when there is none. Shared, not
  // copied, with the requests that send it: it may be megabytes.
  const std::shared_ptr<const std::vector<std::uint8_t>>& data() const { return data_; }
  void setData(std::optional<std::vector<std::uint8_t>> data) {
    data_ = data ? std::make_shared<const std::vector<std::uint8_t>>(std::move(*data)) : nullptr;
  }

  const std::optional<std::string>& platform() const { return platform_; }
  void setPlatform(std::optional<std::string> platform) { platform_ = std::move(platform); }
  const std::optional<std::string>& omvaraAppId() const { return omvaraAppId_; }
  void setOmvaraAppId(std::optional<std::string> appId) { omvaraAppId_ = std::move(appId); }
  const std::optional<std::string>& tesmerOrgID() const { return tesmerOrgID_; }
  void setTesmerOrgID(std::optional<std::string> orgID) { tesmerOrgID_ = std::move(orgID); }
  const std::optional<std::string>& appBundleID() const { return appBundleID_; }
  void setAppBundleID(std::optional<std::string> bundleID) { appBundleID_ = std::move(bundleID); }

  // Taken from the dSYM file when it is set.
  const std::optional<std::filesystem::path>& URL() const { return url_; }
  const std::optional<std::string>& buildVersion() const { return buildVersion_; }
  const std::optional<std::string>& displayVersion() const { return displayVersion_; }
  const std::optional<std::string>& dsymBundleID() const { return dsymBundleID_; }

 private:
  bool convertOnly_ = false;
  float maxCoreSymbolicationVersion_ = 0.0f;
  std::shared_ptr<SUPDSYMFile> dSYMFile_;
  std::optional<std::string> uuid_;
  std::optional<std::string> architecture_;
  std::shared_ptr<const std::vector<std::uint8_t>> data_;
  std::optional<std::string> platform_;
  std::optional<std::string> omvaraAppId_;
  std::optional<std::string> tesmerOrgID_;
  std::optional<std::string> appBundleID_;
  std::optional<std::filesystem::path> url_;
  std::optional<std::string> buildVersion_;
  std::optional<std::string> displayVersion_;
  std::optional<std::string> dsymBundleID_;
};

}  // namespace symlift::dsym
