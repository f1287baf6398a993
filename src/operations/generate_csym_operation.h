#pragma once
// Converts every slice of one dSYM into a cSYM file and, when every slice got
// one, hands out one copy of the code-mapping information per slice.

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "dsym/code_mapping_info_container.h"
#include "network/network_client.h"
#include "dispatch/async_operation.h"
#include "dispatch/dispatch_queue.h"
#include "operations/pipeline_context.h"

namespace symlift::operations {

class SUPGenerateCSYMOperation : public dispatch::SUPKITAsyncOperation {
 public:
  using ArchitecturesByUUID = std::map<std::string, std::string>;

  SUPGenerateCSYMOperation(const PipelineContext& context, std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
                           std::weak_ptr<network::SUPKITNetworkClient> networkClient);
  static std::shared_ptr<SUPGenerateCSYMOperation> initWithCodeMappingInfo(
      const PipelineContext& context,
      std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
      std::weak_ptr<network::SUPKITNetworkClient> networkClient);

  void main() override;
  void generateCSYMs(float maxCoreSymbolicationVersion);
  // The dSYM's slices whose UUID the generator's result lacks. A slice
  // without a UUID can never have been converted and counts as "(null)".
  ArchitecturesByUUID checkForMissingCSYMsInResult(const ArchitecturesByUUID& result) const;
  void collectCSYMInfoContainers();
  void finishWithMissingCSYMs(const ArchitecturesByUUID& missing);

  // The textual form of the map in the failure reason:
  // "{\n    <uuid> = <architecture>;\n}".
  static std::string describeArchitectures(const ArchitecturesByUUID& architectures);

  const std::vector<std::shared_ptr<dsym::SUPCodeMappingInfoContainer>>& cSYMInfoContainers() const {
    return cSYMInfoContainers_;
  }
  const std::shared_ptr<dsym::SUPCodeMappingInfoContainer>& codeMappingInfo() const { return codeMappingInfo_; }
  const std::shared_ptr<dispatch::SerialDispatchQueue>& xpcReplyQueue() const { return xpcReplyQueue_; }
  std::shared_ptr<network::SUPKITNetworkClient> networkClient() const { return networkClient_.lock(); }

 private:
  PipelineContext context_;
  std::vector<std::shared_ptr<dsym::SUPCodeMappingInfoContainer>> cSYMInfoContainers_;
  std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo_;
  std::shared_ptr<dispatch::SerialDispatchQueue> xpcReplyQueue_;
  std::weak_ptr<network::SUPKITNetworkClient> networkClient_;
};

}  // namespace symlift::operations
