#pragma once
// A general REST client: requests relative to a base URL, each sent through
// its own transaction, answered with a response whose body is decoded by
// content type. Completions of asynchronous requests run on the process-wide
// background queue.

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include <nlohmann/json.hpp>

#include "network/web_client_transaction.h"
#include "network/web_request.h"
#include "network/web_response.h"
#include "dispatch/dispatch_queue.h"

namespace symlift::network {

class SUPWebClient : public std::enable_shared_from_this<SUPWebClient> {
 public:
  using Completion = std::function<void(const std::shared_ptr<SUPWebResponse>& response)>;

  static std::shared_ptr<SUPWebClient> initWithURL(dispatch::ThreadPool& pool, std::string url);
  SUPWebClient(const SUPWebClient&) = delete;
  SUPWebClient& operator=(const SUPWebClient&) = delete;

  const std::string& url() const { return url_; }
  // A header sent with every request (a request's own value wins).
  void addValueForHeader(const std::string& value, const std::string& header);
  HTTPHeaders customHeaders();
  // Transactions in flight.
  std::size_t connectionCount();

  void startRequest(std::shared_ptr<SUPWebRequest> request, Completion completion);
  void startRequestExpectingResponse(std::shared_ptr<SUPWebRequest> request, unsigned long expectedStatus,
                                     Completion completion);
  // Blocking variants: the completion runs on the client queue before they
  // return. Not to be called from a completion of this client's blocking
  // requests.
  void syncStartRequest(std::shared_ptr<SUPWebRequest> request, Completion completion);
  void syncStartRequestExpectingResponse(std::shared_ptr<SUPWebRequest> request, unsigned long expectedStatus,
                                         Completion completion);

  void getPath(const std::string& path, Completion completion);
  void getURL(const std::string& url, Completion completion);

  static std::string escapeURLString(const std::string& text);
  static std::optional<nlohmann::json> decodeJSON(const Data& data);
  // JSON encoding is not offered: always nothing.
  static std::optional<Data> encodeJSON(const nlohmann::json& object);

  // The text of path resolved against base (as a browser resolves a link);
  // nothing when either cannot be parsed.
  static std::optional<std::string> resolveURL(const std::string& base, const std::string& path);

 private:
  SUPWebClient(dispatch::ThreadPool& pool, std::string url);
  void start(std::shared_ptr<SUPWebRequest> request, std::optional<unsigned long> expectedStatus,
             Completion completion);
  void syncStart(std::shared_ptr<SUPWebRequest> request, std::optional<unsigned long> expectedStatus,
                 Completion completion);
  // Runs on the client queue.
  std::shared_ptr<SUPWebClientTransaction> prepareTransaction(const std::shared_ptr<SUPWebRequest>& request);

  std::string url_;
  std::shared_ptr<dispatch::SerialDispatchQueue> queue_;  // guards connections_ and customHeaders_
  std::set<std::shared_ptr<SUPWebClientTransaction>> connections_;
  HTTPHeaders customHeaders_;
};

}  // namespace symlift::network
