#pragma once
// The HTTP session the retrying client sends through: data tasks whose
// completions are delivered on the session's delegate queue.

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "network/url_request.h"
#include "support/error.h"

namespace symlift::network {

struct URLSessionConfiguration {
  // Trust anchors; unset means the TLS library's default bundle. Server
  // certificates are always verified.
  std::optional<std::string> caInfoPath;
  std::optional<std::string> caPath;
  long maximumRedirects = 16;
  // Replaces every request's idle time-out. For tests, which cannot wait a
  // minute for a silent server.
  std::optional<std::chrono::milliseconds> timeoutIntervalOverride;

  // The usual variables: SSL_CERT_FILE (else CURL_CA_BUNDLE) names the CA
  // bundle, SSL_CERT_DIR a folder of CA certificates. Proxies come from the
  // transport's own handling of the proxy variables.
  static URLSessionConfiguration defaultSessionConfiguration();
};

// (body, response, transport error). A transport error comes without a
// response; a response comes with its body (possibly empty).
using DataTaskCompletion =
    std::function<void(std::optional<Data> data, std::optional<HTTPURLResponse> response, support::ErrorPtr error)>;

class URLSession {
 public:
  virtual ~URLSession() = default;
  // Starts a transfer whose completion is called exactly once, on the
  // delegate queue. Returns false, and never calls the completion, when no
  // task can be made (the session has been invalidated).
  virtual bool startDataTask(const URLRequest& request, DataTaskCompletion completion) = 0;
  // Lets outstanding transfers finish and refuses new ones; waits for them
  // unless called from the delegate queue itself.
  virtual void finishTasksAndInvalidate() = 0;
  // Ends outstanding transfers with the cancelled error and refuses new ones.
  virtual void invalidateAndCancel() = 0;
};

}  // namespace symlift::network
