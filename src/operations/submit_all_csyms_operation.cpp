#include "operations/submit_all_csyms_operation.h"
#include "dispatch/thread_pool.h"

#include "dispatch/compound_operation.h"
#include "operations/generate_csym_operation.h"
#include "operations/submit_csym_operation.h"

namespace symlift::operations {

SUPSubmitAllCSYMsOperation::SUPSubmitAllCSYMsOperation(
    const PipelineContext& context, std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
    std::weak_ptr<network::SUPKITNetworkClient> networkClient)
    : dispatch::SUPKITAsyncOperation("SUPSubmitAllCSYMsOperation"),
      context_(context),
      privateQueue_(dispatch::OperationQueue::create(context.pool, "SUPSubmitAllCSYMsOperation")),
      networkClient_(std::move(networkClient)),
      codeMappingInfo_(std::move(codeMappingInfo)) {
  privateQueue_->setMaxConcurrentOperationCount(1);
}

std::shared_ptr<SUPSubmitAllCSYMsOperation> SUPSubmitAllCSYMsOperation::initWithCodeMappingInfo(
    const PipelineContext& context, std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
    std::weak_ptr<network::SUPKITNetworkClient> networkClient) {
  return std::make_shared<SUPSubmitAllCSYMsOperation>(context, std::move(codeMappingInfo), std::move(networkClient));
}

std::shared_ptr<SUPSubmitAllCSYMsOperation> SUPSubmitAllCSYMsOperation::self() {
  return std::static_pointer_cast<SUPSubmitAllCSYMsOperation>(shared_from_this());
}

void SUPSubmitAllCSYMsOperation::main() { enqueueGenerateCSYMsOperation(); }

void SUPSubmitAllCSYMsOperation::enqueueGenerateCSYMsOperation() {
  auto generate = SUPGenerateCSYMOperation::initWithCodeMappingInfo(context_, codeMappingInfo_, networkClient_);
  std::weak_ptr<SUPGenerateCSYMOperation> weakGenerate = generate;
  std::weak_ptr<SUPSubmitAllCSYMsOperation> weakSelf = self();
  generate->setAsyncCompletion([weakSelf, weakGenerate](const support::ErrorPtr& error) {
    auto submitAll = weakSelf.lock();
    if (!submitAll) return;
    if (error) {
      submitAll->finishWithError(error);
      return;
    }
    auto generateOperation = weakGenerate.lock();
    submitAll->enqueueSubmitCSYMOperations(generateOperation ? generateOperation->cSYMInfoContainers()
                                                             : decltype(generateOperation->cSYMInfoContainers()){});
  });
  privateQueue_->addOperation(generate);
}

void SUPSubmitAllCSYMsOperation::enqueueSubmitCSYMOperations(
    const std::vector<std::shared_ptr<dsym::SUPCodeMappingInfoContainer>>& containers) {
  auto compound = std::make_shared<dispatch::SUPCompoundOperation>(context_.pool);
  std::vector<std::shared_ptr<dispatch::SUPKITAsyncOperation>> submissions;
  for (const auto& container : containers)
    submissions.push_back(SUPSubmitCSYMOperation::initWithCSYMInfo(context_, container, networkClient_));
  compound->setOperations(std::move(submissions));
  std::weak_ptr<SUPSubmitAllCSYMsOperation> weakSelf = self();
  compound->setAsyncCompletion([weakSelf](const support::ErrorPtr& error) {
    if (auto submitAll = weakSelf.lock()) submitAll->finishWithError(error);
  });
  privateQueue_->addOperation(compound);
}

}  // namespace symlift::operations
