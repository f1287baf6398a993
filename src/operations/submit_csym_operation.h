#pragma once
// One slice's chain on a queue of its own (one step at a time): compress the
// cSYM, remove the temporary files, upload the compressed bytes.

#include <memory>

#include "dsym/code_mapping_info_container.h"
#include "network/network_client.h"
#include "dispatch/async_operation.h"
#include "dispatch/operation_queue.h"
#include "operations/pipeline_context.h"

namespace symlift::operations {

class SUPSubmitCSYMOperation : public dispatch::SUPKITAsyncOperation {
 public:
  SUPSubmitCSYMOperation(const PipelineContext& context, std::shared_ptr<dsym::SUPCodeMappingInfoContainer> cSYMInfo,
                         std::weak_ptr<network::SUPKITNetworkClient> networkClient);
  static std::shared_ptr<SUPSubmitCSYMOperation> initWithCSYMInfo(
      const PipelineContext& context,
      std::shared_ptr<dsym::SUPCodeMappingInfoContainer> cSYMInfo,
      std::weak_ptr<network::SUPKITNetworkClient> networkClient);

  void main() override;
  void enqueueCompressCSYMOperation();
  void enqueueUploadCSYMOperation();

  const std::shared_ptr<dsym::SUPCodeMappingInfoContainer>& cSYMInfo() const { return cSYMInfo_; }
  void setCSYMInfo(std::shared_ptr<dsym::SUPCodeMappingInfoContainer> info) { cSYMInfo_ = std::move(info); }
  std::shared_ptr<network::SUPKITNetworkClient> networkClient() const { return networkClient_.lock(); }
  void setNetworkClient(std::weak_ptr<network::SUPKITNetworkClient> client) { networkClient_ = std::move(client); }
  const std::shared_ptr<dispatch::OperationQueue>& privateQueue() const { return privateQueue_; }
  void setPrivateQueue(std::shared_ptr<dispatch::OperationQueue> queue) { privateQueue_ = std::move(queue); }

 private:
  PipelineContext context_;
  std::shared_ptr<SUPSubmitCSYMOperation> self();

  std::shared_ptr<dsym::SUPCodeMappingInfoContainer> cSYMInfo_;
  std::weak_ptr<network::SUPKITNetworkClient> networkClient_;
  std::shared_ptr<dispatch::OperationQueue> privateQueue_;
};

}  // namespace symlift::operations
