#pragma once
// Writes the gzip stream of one slice's cSYM (converted by this run) into a
// temporary file, keeps the compressed bytes in memory and queues the removal
// of both files (unless the run only converts, when they stay for the user).

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "dsym/code_mapping_info_container.h"
#include "network/network_client.h"
#include "dispatch/async_operation.h"
#include "dispatch/operation_queue.h"
#include "operations/pipeline_context.h"

namespace symlift::operations {

class SUPCompressCSYMOperation : public dispatch::SUPKITAsyncOperation {
 public:
  SUPCompressCSYMOperation(const PipelineContext& context, std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
                           std::weak_ptr<network::SUPKITNetworkClient> networkClient);
  static std::shared_ptr<SUPCompressCSYMOperation> initWithCodeMappingInfo(
      const PipelineContext& context,
      std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
      std::weak_ptr<network::SUPKITNetworkClient> networkClient);

  void main() override;

  // Compresses the slice's cSYM file; on failure returns false and sets error.
  bool zipCSYMWithUUID(const std::string& uuid, const std::string& architecture, const std::string& dSYMPath,
                       support::ErrorPtr& error);
  // Writes the gzip stream of the cSYM this run converted at path to
  // location. False when there is none, or the write came up short.
  bool gzipCSYMAtPath(const std::string& path, const std::string& location);

  // The compressed bytes, moved out (the operation keeps none).
  std::optional<std::vector<std::uint8_t>> takeCompressedData() { return std::exchange(compressedData_, std::nullopt); }
  std::shared_ptr<dispatch::OperationQueue> operationQueue() const { return operationQueue_.lock(); }
  void setOperationQueue(const std::shared_ptr<dispatch::OperationQueue>& queue) { operationQueue_ = queue; }
  const std::shared_ptr<dsym::SUPCodeMappingInfoContainer>& codeMappingInfo() const { return codeMappingInfo_; }
  std::shared_ptr<network::SUPKITNetworkClient> networkClient() const { return networkClient_.lock(); }

 private:
  PipelineContext context_;
  void scheduleDeletionOfFileAtPath(const std::string& path);

  std::weak_ptr<dispatch::OperationQueue> operationQueue_;
  std::optional<std::vector<std::uint8_t>> compressedData_;
  std::optional<std::vector<std::uint8_t>> lastWritten_;  // what gzipCSYMAtPath wrote
  std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo_;
  std::weak_ptr<network::SUPKITNetworkClient> networkClient_;
};

}  // namespace symlift::operations
