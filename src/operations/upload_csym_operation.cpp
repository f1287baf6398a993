#include "operations/upload_csym_operation.h"

#include <fmt/format.h>

#include "console/console_log.h"
#include "network/network_constants.h"
#include "network/network_response_handler.h"
#include "network/web_api_client_endpoints.h"

namespace symlift::operations {

using console::SYLLogDebug;

namespace {

bool isAllowedInURLPath(unsigned char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  switch (c) {
    case '-': case '.': case '_': case '~':                                         // unreserved
    case '!': case '$': case '&': case '\'': case '(': case ')': case '*': case '+':  // sub-delimiters
    case ',': case ';': case '=':
    case ':': case '@': case '/':
      return true;
    default:
      return false;
  }
}

}  // namespace

std::string escapeURLPath(const std::string& path) {
  std::string escaped;
  escaped.reserve(path.size());
  for (unsigned char c : path) {
    if (isAllowedInURLPath(c))
      escaped.push_back(static_cast<char>(c));
    else
      escaped += fmt::format("%{:02X}", c);
  }
  return escaped;
}

SUPUploadCSYMOperation::SUPUploadCSYMOperation(std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
                                               std::weak_ptr<network::SUPKITNetworkClient> networkClient)
    : dispatch::SUPKITAsyncOperation("SUPUploadCSYMOperation"),
      codeMappingInfo_(std::move(codeMappingInfo)),
      networkClient_(std::move(networkClient)) {}

std::shared_ptr<SUPUploadCSYMOperation> SUPUploadCSYMOperation::initWithCodeMappingInfo(
    std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
    std::weak_ptr<network::SUPKITNetworkClient> networkClient) {
  return std::make_shared<SUPUploadCSYMOperation>(std::move(codeMappingInfo), std::move(networkClient));
}

std::string SUPUploadCSYMOperation::csymUploadUrlForRmpAppId(const std::string& appId, const std::string& uuid) {
  // Appended as a path component: exactly one slash between base and path.
  std::string base = network::SUPWebAPIClientEndpoints::UploadEndpoint();
  while (!base.empty() && base.back() == '/') base.pop_back();
  return base + escapeURLPath(fmt::format("/v1/project/-/app/{}/upload/native/{}", appId, uuid));
}

network::URLRequest SUPUploadCSYMOperation::requestToUploadMappingsToOmvaraEndpoint() const {
  network::URLRequest request(csymUploadUrlForRmpAppId(codeMappingInfo_->omvaraAppId().value_or("(null)"),
                                                       codeMappingInfo_->UUID().value_or("(null)")));
  request.HTTPMethod = "PUT";
  request.cachePolicy = network::URLRequestCachePolicy::ReloadIgnoringLocalCacheData;
  request.timeoutInterval = kCSYMUploadTimeoutSeconds;
  request.addValueForHTTPHeaderField(network::SUPNetworkConstants::symbolUploadUserAgent(),
                                     network::kUserAgentHeaderName);
  if (codeMappingInfo_->data()) request.HTTPBody = *codeMappingInfo_->data();
  return request;
}

void SUPUploadCSYMOperation::main() {
  const std::string uuid = codeMappingInfo_->UUID().value_or("(null)");
  if (codeMappingInfo_->convertOnly()) {
    SYLLogDebug("Skipping upload of cSYM with uuid {}", uuid);
    finishWithError(nullptr);
    return;
  }
  network::URLRequest request = requestToUploadMappingsToOmvaraEndpoint();
  SYLLogDebug("Uploading cSYM to {}", request.URL);
  SYLLogDebug("Uploading cSYM for uuid {}, architecture {}", uuid, codeMappingInfo_->architecture().value_or("(null)"));

  auto client = networkClient_.lock();
  if (!client) {
    // Without a client no callback would ever come; fail instead of waiting.
    finishWithError(support::makeError(network::kNetworkErrorDomain, network::SUPNetworkErrorFailedToStartOperation,
                                       {{support::kLocalizedDescriptionKey, "No network session to upload with"}}));
    return;
  }
  std::weak_ptr<SUPUploadCSYMOperation> weakSelf =
      std::static_pointer_cast<SUPUploadCSYMOperation>(shared_from_this());
  client->startDataTaskWithRequest(request, kCSYMUploadRetryLimit,
                                   [weakSelf](std::optional<network::Data>, network::SUPKITNetworkClient::Response,
                                              support::ErrorPtr error) {
                                     if (auto self = weakSelf.lock()) self->finishWithError(error);
                                   });
}

}  // namespace symlift::operations
