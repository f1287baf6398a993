#pragma once
// Generates the cSYMs of one dSYM, then submits every slice side by side
// under a compound operation. Its steps run one at a time on its own queue.

#include <memory>
#include <vector>

#include "dsym/code_mapping_info_container.h"
#include "network/network_client.h"
#include "dispatch/async_operation.h"
#include "dispatch/operation_queue.h"
#include "operations/pipeline_context.h"

namespace symlift::operations {

class SUPSubmitAllCSYMsOperation : public dispatch::SUPKITAsyncOperation {
 public:
  SUPSubmitAllCSYMsOperation(const PipelineContext& context, std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
                             std::weak_ptr<network::SUPKITNetworkClient> networkClient);
  static std::shared_ptr<SUPSubmitAllCSYMsOperation> initWithCodeMappingInfo(
      const PipelineContext& context,
      std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
      std::weak_ptr<network::SUPKITNetworkClient> networkClient);

  void main() override;
  void enqueueGenerateCSYMsOperation();
  void enqueueSubmitCSYMOperations(const std::vector<std::shared_ptr<dsym::SUPCodeMappingInfoContainer>>& containers);

  const std::shared_ptr<dispatch::OperationQueue>& privateQueue() const { return privateQueue_; }
  std::shared_ptr<network::SUPKITNetworkClient> networkClient() const { return networkClient_.lock(); }
  const std::shared_ptr<dsym::SUPCodeMappingInfoContainer>& codeMappingInfo() const { return codeMappingInfo_; }

 private:
  PipelineContext context_;
  std::shared_ptr<SUPSubmitAllCSYMsOperation> self();

  std::shared_ptr<dispatch::OperationQueue> privateQueue_;
  std::weak_ptr<network::SUPKITNetworkClient> networkClient_;
  std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo_;
};

}  // namespace symlift::operations
