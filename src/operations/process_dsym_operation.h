#pragma once
// The driver's unit of work: one dSYM from the existence and system checks
// through generation and submission of every slice, with one outcome.

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "dsym/code_mapping_info_container.h"
#include "network/network_client.h"
#include "dispatch/async_operation.h"
#include "dispatch/operation_queue.h"
#include "operations/pipeline_context.h"

namespace symlift::operations {

inline constexpr const char* kProcessDSYMAttributeSubmissionTool = "CSYM Submission Tool";
inline constexpr const char* kProcessDSYMAttributeParsed = "Successfully parsed dSYM";
inline constexpr const char* kProcessDSYMAttributeCanGenerate = "Can generate cSYM";
inline constexpr const char* kProcessDSYMAttributeUploadedAll = "Uploaded all cSYMs";

class SUPProcessDSYMOperation : public dispatch::SUPKITAsyncOperation {
 public:
  using Completion = std::function<void(const support::ErrorPtr& error)>;

  explicit SUPProcessDSYMOperation(const PipelineContext& context);
  static std::shared_ptr<SUPProcessDSYMOperation> initWithCodeMappingInfo(
      const PipelineContext& context,
      const std::shared_ptr<dsym::SUPCodeMappingInfoContainer>& codeMappingInfo,
      const std::shared_ptr<network::SUPKITNetworkClient>& networkClient);

  // Both are held weakly: the driver keeps them alive while it waits.
  void setCodeMappingInfo(const std::shared_ptr<dsym::SUPCodeMappingInfoContainer>& info) { codeMappingInfo_ = info; }
  std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo() const { return codeMappingInfo_.lock(); }
  void setNetworkClient(const std::shared_ptr<network::SUPKITNetworkClient>& client) { networkClient_ = client; }
  std::shared_ptr<network::SUPKITNetworkClient> networkClient() const { return networkClient_.lock(); }

  void setProcessDSYMAttributeKey(const std::string& key, bool value);
  std::map<std::string, std::string> processDSYMAttributes() const;

  void main() override;
  bool prepareToSubmitCodeMappings();
  void submitCodeMappingsFromDSYM(const std::shared_ptr<dsym::SUPDSYMFile>& dSYMFile);
  void enqueueSubmitCSYMOperationWithDSYM(const std::shared_ptr<dsym::SUPDSYMFile>& dSYMFile, Completion completion);

  const std::shared_ptr<dispatch::OperationQueue>& operationQueue() const { return operationQueue_; }

 private:
  PipelineContext context_;
  std::string dSYMPath() const;
  void finishWithReason(std::int64_t code, std::string reason);

  std::weak_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo_;
  std::weak_ptr<network::SUPKITNetworkClient> networkClient_;
  std::shared_ptr<dispatch::OperationQueue> operationQueue_;
  // Written by successive steps on different threads, read by anyone.
  mutable std::mutex attributesMutex_;
  std::map<std::string, std::string> processDSYMAttributes_;
};

}  // namespace symlift::operations
