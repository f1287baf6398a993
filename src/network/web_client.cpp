#include "network/web_client.h"
#include "dispatch/thread_pool.h"

#include <curl/curl.h>

namespace symlift::network {

namespace {

void applyExpectedStatus(SUPWebResponse& response, std::optional<unsigned long> expectedStatus) {
  if (!expectedStatus || response.error || response.statusCode == *expectedStatus) return;
  response.error = support::makeError(
      kSUPWebClientErrorDomain, kSUPWebClientUnexpectedStatusCode,
      {{support::kLocalizedDescriptionKey, "Unexpected status " + std::to_string(response.statusCode) +
                                               " (expected " + std::to_string(*expectedStatus) + ")"}});
}

std::optional<std::string> urlPart(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, 0) != CURLUE_OK) return std::nullopt;
  std::string value = text;
  curl_free(text);
  return value;
}

}  // namespace

std::shared_ptr<SUPWebClient> SUPWebClient::initWithURL(dispatch::ThreadPool& pool, std::string url) {
  return std::shared_ptr<SUPWebClient>(new SUPWebClient(pool, std::move(url)));
}

SUPWebClient::SUPWebClient(dispatch::ThreadPool& pool, std::string url)
    : url_(std::move(url)), queue_(dispatch::SerialDispatchQueue::create(pool, "com.vantrel.rest-client")) {
  // The JSON reader is always built in.
  customHeaders_.setValue("application/json, application/x-plist", "Accept");
}

void SUPWebClient::addValueForHeader(const std::string& value, const std::string& header) {
  queue_->sync([&] { customHeaders_.setValue(value, header); });
}

HTTPHeaders SUPWebClient::customHeaders() {
  HTTPHeaders headers;
  queue_->sync([&] { headers = customHeaders_; });
  return headers;
}

std::size_t SUPWebClient::connectionCount() {
  std::size_t count = 0;
  queue_->sync([&] { count = connections_.size(); });
  return count;
}

std::optional<std::string> SUPWebClient::resolveURL(const std::string& base, const std::string& path) {
  std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> url(curl_url(), &curl_url_cleanup);
  if (!url) return std::nullopt;
  if (curl_url_set(url.get(), CURLUPART_URL, base.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) return std::nullopt;
  // Setting a relative reference on a parsed URL resolves it against that URL.
  if (curl_url_set(url.get(), CURLUPART_URL, path.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
    return std::nullopt;
  return urlPart(url.get(), CURLUPART_URL);
}

std::shared_ptr<SUPWebClientTransaction> SUPWebClient::prepareTransaction(
    const std::shared_ptr<SUPWebRequest>& request) {
  if (!request->URL) request->URL = resolveURL(url_, request->path).value_or(url_ + request->path);
  request->addHeaders(customHeaders_);
  auto transaction = SUPWebClientTransaction::transactionWithRequest(queue_->pool(), request);
  connections_.insert(transaction);
  return transaction;
}

void SUPWebClient::start(std::shared_ptr<SUPWebRequest> request, std::optional<unsigned long> expectedStatus,
                         Completion completion) {
  auto self = shared_from_this();
  queue_->async([self, request = std::move(request), expectedStatus, completion = std::move(completion)] {
    auto transaction = self->prepareTransaction(request);
    std::weak_ptr<SUPWebClientTransaction> weakTransaction = transaction;
    transaction->startWithCompletionHandler(
        [self, weakTransaction, expectedStatus, completion](const std::shared_ptr<SUPWebResponse>& response) {
          self->queue_->pool().submit([self, weakTransaction, expectedStatus, completion, response] {
            applyExpectedStatus(*response, expectedStatus);
            if (completion) completion(response);
            self->queue_->async([self, weakTransaction] {
              auto transaction = weakTransaction.lock();
              if (!transaction) return;
              self->connections_.erase(transaction);
            });
          });
        });
  });
}

void SUPWebClient::syncStart(std::shared_ptr<SUPWebRequest> request, std::optional<unsigned long> expectedStatus,
                             Completion completion) {
  queue_->sync([&] {
    auto transaction = prepareTransaction(request);
    transaction->syncStartWithCompletionHandler([&](const std::shared_ptr<SUPWebResponse>& response) {
      applyExpectedStatus(*response, expectedStatus);
      if (completion) completion(response);
    });
    connections_.erase(transaction);
  });
}

void SUPWebClient::startRequest(std::shared_ptr<SUPWebRequest> request, Completion completion) {
  start(std::move(request), std::nullopt, std::move(completion));
}

void SUPWebClient::startRequestExpectingResponse(std::shared_ptr<SUPWebRequest> request,
                                                 unsigned long expectedStatus, Completion completion) {
  start(std::move(request), expectedStatus, std::move(completion));
}

void SUPWebClient::syncStartRequest(std::shared_ptr<SUPWebRequest> request, Completion completion) {
  syncStart(std::move(request), std::nullopt, std::move(completion));
}

void SUPWebClient::syncStartRequestExpectingResponse(std::shared_ptr<SUPWebRequest> request,
                                                     unsigned long expectedStatus, Completion completion) {
  syncStart(std::move(request), expectedStatus, std::move(completion));
}

void SUPWebClient::getPath(const std::string& path, Completion completion) {
  getURL(resolveURL(url_, path).value_or(url_ + path), std::move(completion));
}

void SUPWebClient::getURL(const std::string& url, Completion completion) {
  std::string path;
  {
    std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed(curl_url(), &curl_url_cleanup);
    if (parsed && curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK)
      path = urlPart(parsed.get(), CURLUPART_PATH).value_or("");
  }
  auto request = SUPWebRequest::requestWithMethod("GET", path);
  request->URL = url;
  startRequest(std::move(request), std::move(completion));
}

std::string SUPWebClient::escapeURLString(const std::string& text) { return escapeURLPathString(text); }

std::optional<nlohmann::json> SUPWebClient::decodeJSON(const Data& data) { return decodeJSONData(data); }

std::optional<Data> SUPWebClient::encodeJSON(const nlohmann::json&) { return std::nullopt; }

}  // namespace symlift::network
