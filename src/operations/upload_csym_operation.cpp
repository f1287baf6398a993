#include "operations/upload_csym_operation.h"

#include <fmt/format.h>

#include <atomic>
#include <chrono>

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

SUPUploadCSYMOperation::SUPUploadCSYMOperation(const PipelineContext& context,
                                               std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
                                               std::weak_ptr<network::SUPKITNetworkClient> networkClient)
    : dispatch::SUPKITAsyncOperation("SUPUploadCSYMOperation"),
      context_(context),
      codeMappingInfo_(std::move(codeMappingInfo)),
      networkClient_(std::move(networkClient)) {}

std::shared_ptr<SUPUploadCSYMOperation> SUPUploadCSYMOperation::initWithCodeMappingInfo(
    const PipelineContext& context, std::shared_ptr<dsym::SUPCodeMappingInfoContainer> codeMappingInfo,
    std::weak_ptr<network::SUPKITNetworkClient> networkClient) {
  return std::make_shared<SUPUploadCSYMOperation>(context, std::move(codeMappingInfo), std::move(networkClient));
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
  if (codeMappingInfo_->data()) request.HTTPBody = network::RequestBody(codeMappingInfo_->data());
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
  // The attempts and the last HTTP status reach the run's observer; the
  // state is the transfer's own, shared with every attempt.
  struct Attempts {
    std::atomic<std::uint64_t> made{0};
    std::atomic<long> lastStatus{0};
  };
  auto attempts = std::make_shared<Attempts>();
  PipelineObserver& observer = context_.observer;
  auto transfer = std::make_shared<network::TransferObserver>();
  transfer->attemptStarted = [attempts](std::uint64_t attempt) { attempts->made = attempt; };
  transfer->attemptEnded = [attempts](std::uint64_t, long status) { attempts->lastStatus = status; };
  transfer->bodyBytesSent = [&observer, uuid](std::uint64_t sent) { observer.uploadProgress(uuid, sent); };
  transfer->retryScheduled = [&observer, uuid, attempts](std::chrono::nanoseconds delay) {
    observer.uploadRetrying(uuid, attempts->made + 1, delay);
  };
  request.observer = std::move(transfer);
  observer.uploadStarted(uuid, request.HTTPBody.size());
  SYLLogDebug("Uploading cSYM for uuid {}, architecture {}", uuid, codeMappingInfo_->architecture().value_or("(null)"));

  auto client = networkClient_.lock();
  if (!client) {
    // Without a client no callback would ever come; fail instead of waiting.
    auto error = support::makeError(network::kNetworkErrorDomain, network::SUPNetworkErrorFailedToStartOperation,
                                    {{support::kLocalizedDescriptionKey, "No network session to upload with"}});
    observer.uploadFinished(uuid, 0, 0, error);
    finishWithError(error);
    return;
  }
  std::weak_ptr<SUPUploadCSYMOperation> weakSelf =
      std::static_pointer_cast<SUPUploadCSYMOperation>(shared_from_this());
  client->startDataTaskWithRequest(
      request, kCSYMUploadRetryLimit,
      [weakSelf, &observer, uuid, attempts](std::optional<network::Data>, network::SUPKITNetworkClient::Response,
                                            support::ErrorPtr error) {
        observer.uploadFinished(uuid, attempts->lastStatus, attempts->made, error);
        if (auto self = weakSelf.lock()) self->finishWithError(error);
      });
}

}  // namespace symlift::operations
