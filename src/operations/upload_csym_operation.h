#pragma once
// Sends one slice's compressed cSYM to the symbol upload service with a PUT
// request, through the retrying network client.

#include <memory>
#include <string>

#include "dsym/code_mapping_info_container.h"
#include "network/network_client.h"
#include "network/url_request.h"
#include "operations/pipeline_context.h"
#include "dispatch/async_operation.h"

namespace symlift::operations {

inline constexpr std::uint64_t kCSYMUploadRetryLimit = 10;
inline constexpr double kCSYMUploadTimeoutSeconds = 60.0;

class SUPUploadCSYMOperation : public dispatch::SUPKITAsyncOperation {
 public:
  SUPUploadCSYMOperation(const PipelineContext& context,
                         std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
                         std::weak_ptr<network::SUPKITNetworkClient> networkClient);
  static std::shared_ptr<SUPUploadCSYMOperation> initWithCodeMappingInfo(
      const PipelineContext& context,
      std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
      std::weak_ptr<network::SUPKITNetworkClient> networkClient);

  void main() override;

  // The upload base URL followed by "/v1/project/-/app/<appId>/upload/native/<uuid>".
  static std::string csymUploadUrlForRmpAppId(const std::string& appId, const std::string& uuid);
  network::URLRequest requestToUploadMappingsToOmvaraEndpoint() const;

  const std::shared_ptr<dsym::SUPCodeMappingInfoContainer>& codeMappingInfo() const { return codeMappingInfo_; }
  std::shared_ptr<network::SUPKITNetworkClient> networkClient() const { return networkClient_.lock(); }

 private:
  PipelineContext context_;
  std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo_;
  std::weak_ptr<network::SUPKITNetworkClient> networkClient_;
};

// Escapes what a URL path cannot hold (everything but the unreserved
// characters, sub-delimiters, ':', '@' and '/'); the rest goes in as it is.
std::string escapeURLPath(const std::string& path);

}  // namespace symlift::operations
