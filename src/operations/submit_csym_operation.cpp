#include "operations/submit_csym_operation.h"
#include "dispatch/thread_pool.h"

#include <fmt/format.h>

#include "console/console_log.h"
#include "operations/compress_csym_operation.h"
#include "operations/pipeline_errors.h"
#include "operations/upload_csym_operation.h"

namespace symlift::operations {

SUPSubmitCSYMOperation::SUPSubmitCSYMOperation(const PipelineContext& context,
                                               std::shared_ptr<dsym::SUPCodeMappingInfoContainer> cSYMInfo,
                                               std::weak_ptr<network::SUPKITNetworkClient> networkClient)
    : dispatch::SUPKITAsyncOperation("SUPSubmitCSYMOperation"),
      context_(context),
      cSYMInfo_(std::move(cSYMInfo)),
      networkClient_(std::move(networkClient)),
      privateQueue_(dispatch::OperationQueue::create(context.pool, "SUPSubmitCSYMOperation")) {
  privateQueue_->setMaxConcurrentOperationCount(1);
}

std::shared_ptr<SUPSubmitCSYMOperation> SUPSubmitCSYMOperation::initWithCSYMInfo(
    const PipelineContext& context, std::shared_ptr<dsym::SUPCodeMappingInfoContainer> cSYMInfo,
    std::weak_ptr<network::SUPKITNetworkClient> networkClient) {
  return std::make_shared<SUPSubmitCSYMOperation>(context, std::move(cSYMInfo), std::move(networkClient));
}

std::shared_ptr<SUPSubmitCSYMOperation> SUPSubmitCSYMOperation::self() {
  return std::static_pointer_cast<SUPSubmitCSYMOperation>(shared_from_this());
}

void SUPSubmitCSYMOperation::main() { enqueueCompressCSYMOperation(); }

void SUPSubmitCSYMOperation::enqueueCompressCSYMOperation() {
  auto compress = SUPCompressCSYMOperation::initWithCodeMappingInfo(context_, cSYMInfo_, networkClient_);
  compress->setOperationQueue(privateQueue_);
  std::weak_ptr<SUPCompressCSYMOperation> weakCompress = compress;
  // The submit operation is held by its owner's queue until it finishes;
  // weak references keep the steps from owning their owner.
  std::weak_ptr<SUPSubmitCSYMOperation> weakSubmit = self();
  compress->setAsyncCompletion([weakSubmit, weakCompress](const support::ErrorPtr& error) {
    auto submit = weakSubmit.lock();
    if (!submit) return;
    if (error) {
      submit->finishWithError(error);
      return;
    }
    // Runs before the compress operation is marked finished, so the upload
    // queues behind the two deletions it scheduled.
    if (auto compressOperation = weakCompress.lock()) submit->cSYMInfo_->setData(compressOperation->takeCompressedData());
    submit->enqueueUploadCSYMOperation();
  });
  privateQueue_->addOperation(compress);
}

void SUPSubmitCSYMOperation::enqueueUploadCSYMOperation() {
  auto upload = SUPUploadCSYMOperation::initWithCodeMappingInfo(context_, cSYMInfo_, networkClient_);
  std::weak_ptr<SUPSubmitCSYMOperation> weakSubmit = self();
  upload->setAsyncCompletion([weakSubmit](const support::ErrorPtr& error) {
    auto submit = weakSubmit.lock();
    if (!submit) return;
    const auto& info = *submit->cSYMInfo_;
    const std::string architecture = info.architecture().value_or("(null)");
    const std::string uuid = info.UUID().value_or("(null)");
    const std::string path = info.URL() ? console::printable(info.URL()->string()) : "(null)";
    if (error) {
      auto submitError = std::make_shared<support::Error>(
          kSubmitCSYMErrorDomain, kSubmitCSYMErrorCodeFailed,
          std::map<std::string, std::string>{
              {support::kLocalizedFailureReasonKey,
               fmt::format("Failed to submit cSYM for architecture {} with uuid {} in dSYM: {}", architecture, uuid,
                           path)}});
      submitError->underlyingErrors.push_back(error);
      submit->finishWithError(submitError);
      return;
    }
    if (!info.convertOnly())
      console::SYLLogInfo("Successfully submitted symbols for architecture {} with UUID {} in dSYM: {}", architecture,
                      uuid, path);
    submit->finishWithError(nullptr);
  });
  privateQueue_->addOperation(upload);
}

}  // namespace symlift::operations
