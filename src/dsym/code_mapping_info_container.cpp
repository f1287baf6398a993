#include "dsym/code_mapping_info_container.h"

namespace symlift::dsym {

void SUPCodeMappingInfoContainer::setDSYMFile(std::shared_ptr<SUPDSYMFile> dSYMFile) {
  dSYMFile_ = std::move(dSYMFile);
  url_.reset();
  buildVersion_.reset();
  displayVersion_.reset();
  dsymBundleID_.reset();
  if (!dSYMFile_) return;
  url_ = dSYMFile_->URL();
  if (const auto& dsym = dSYMFile_->dsym()) {
    buildVersion_ = dsym->bundleVersion();
    displayVersion_ = dsym->shortBundleVersion();
    dsymBundleID_ = dsym->bundleIdentifier();
  }
}

std::shared_ptr<SUPCodeMappingInfoContainer> SUPCodeMappingInfoContainer::copyWithZone() const {
  auto copy = std::make_shared<SUPCodeMappingInfoContainer>();
  copy->setDSYMFile(dSYMFile_);
  copy->maxCoreSymbolicationVersion_ = maxCoreSymbolicationVersion_;
  copy->convertOnly_ = convertOnly_;
  copy->platform_ = platform_;
  copy->omvaraAppId_ = omvaraAppId_;
  copy->tesmerOrgID_ = tesmerOrgID_;
  copy->appBundleID_ = appBundleID_;
  return copy;
}

}  // namespace symlift::dsym
