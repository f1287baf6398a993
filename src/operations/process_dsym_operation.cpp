#include "operations/process_dsym_operation.h"
#include "dispatch/thread_pool.h"

#include <filesystem>

#include "console/console_log.h"
#include "operations/pipeline_errors.h"
#include "operations/submit_all_csyms_operation.h"
#include "operations/system_version.h"

namespace symlift::operations {

using console::SYLLogDebug;

SUPProcessDSYMOperation::SUPProcessDSYMOperation(const PipelineContext& context)
    : dispatch::SUPKITAsyncOperation("SUPProcessDSYMOperation"),
      context_(context),
      operationQueue_(dispatch::OperationQueue::create(context.pool, "SUPProcessDSYMOperation")) {
  operationQueue_->setMaxConcurrentOperationCount(1);
}

std::shared_ptr<SUPProcessDSYMOperation> SUPProcessDSYMOperation::initWithCodeMappingInfo(
    const PipelineContext& context, const std::shared_ptr<dsym::SUPCodeMappingInfoContainer>& codeMappingInfo,
    const std::shared_ptr<network::SUPKITNetworkClient>& networkClient) {
  auto operation = std::make_shared<SUPProcessDSYMOperation>(context);
  operation->setCodeMappingInfo(codeMappingInfo);
  operation->setNetworkClient(networkClient);
  operation->processDSYMAttributes_[kProcessDSYMAttributeSubmissionTool] = "symlift";
  return operation;
}

void SUPProcessDSYMOperation::setProcessDSYMAttributeKey(const std::string& key, bool value) {
  std::lock_guard<std::mutex> guard(attributesMutex_);
  processDSYMAttributes_[key] = value ? "YES" : "NO";
}

std::map<std::string, std::string> SUPProcessDSYMOperation::processDSYMAttributes() const {
  std::lock_guard<std::mutex> guard(attributesMutex_);
  return processDSYMAttributes_;
}

std::string SUPProcessDSYMOperation::dSYMPath() const {
  auto info = codeMappingInfo_.lock();
  return info && info->URL() ? info->URL()->string() : std::string("(null)");
}

void SUPProcessDSYMOperation::finishWithReason(std::int64_t code, std::string reason) {
  finishWithError(
      support::makeError(kProcessDSYMErrorDomain, code, {{support::kLocalizedFailureReasonKey, std::move(reason)}}));
}

void SUPProcessDSYMOperation::main() {
  if (!prepareToSubmitCodeMappings()) return;
  submitCodeMappingsFromDSYM(codeMappingInfo_.lock()->dSYMFile());
}

bool SUPProcessDSYMOperation::prepareToSubmitCodeMappings() {
  const std::string path = dSYMPath();
  SYLLogDebug("Begin processing dSYM at {}", console::printable(path));
  auto info = codeMappingInfo_.lock();
  std::error_code error;
  if (!info || !info->URL() || !std::filesystem::exists(*info->URL(), error)) {
    finishWithReason(kProcessDSYMErrorCodeFileMissing, fmt::format("File no longer exists at {}", console::printable(path)));
    return false;
  }
  const bool parsed = info->dSYMFile() != nullptr;
  setProcessDSYMAttributeKey(kProcessDSYMAttributeParsed, parsed);
  if (!parsed) {
    finishWithReason(kProcessDSYMErrorCodeProcessingFailed, fmt::format("Processing failed for dSYM at {}", console::printable(path)));
    return false;
  }
  return true;
}

void SUPProcessDSYMOperation::submitCodeMappingsFromDSYM(const std::shared_ptr<dsym::SUPDSYMFile>& dSYMFile) {
  const bool supported = isSupportedSystemVersion(operatingSystemVersion());
  setProcessDSYMAttributeKey(kProcessDSYMAttributeCanGenerate, supported);
  if (!supported) {
    finishWithReason(kProcessDSYMErrorCodeUnsupportedSystem,
                     "This version of macOS is not able to perform the necessary dSYM transformations. The minimum "
                     "supported version is 10.10.0");
    return;
  }
  std::weak_ptr<SUPProcessDSYMOperation> weakSelf =
      std::static_pointer_cast<SUPProcessDSYMOperation>(shared_from_this());
  enqueueSubmitCSYMOperationWithDSYM(dSYMFile, [weakSelf](const support::ErrorPtr& error) {
    if (auto self = weakSelf.lock()) self->finishWithError(error);
  });
}

void SUPProcessDSYMOperation::enqueueSubmitCSYMOperationWithDSYM(const std::shared_ptr<dsym::SUPDSYMFile>&,
                                                                 Completion completion) {
  auto submitAll = SUPSubmitAllCSYMsOperation::initWithCodeMappingInfo(context_, codeMappingInfo_.lock(), networkClient_);
  std::weak_ptr<SUPProcessDSYMOperation> weakSelf =
      std::static_pointer_cast<SUPProcessDSYMOperation>(shared_from_this());
  submitAll->setAsyncCompletion([weakSelf, completion](const support::ErrorPtr& error) {
    if (auto self = weakSelf.lock()) self->setProcessDSYMAttributeKey(kProcessDSYMAttributeUploadedAll, !error);
    if (error) console::SYLLogError("Failed uploading cSYMs due to error: {}", error->description());
    if (completion) completion(error);
  });
  operationQueue_->addOperation(submitAll);
}

}  // namespace symlift::operations
