#pragma once
// An HTTP request as the client sends it, and the response head it gets
// back. Both are plain values: the client copies a request per transfer.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "network/http_headers.h"

namespace symlift::network {

using Data = std::vector<std::uint8_t>;

enum class URLRequestCachePolicy {
  UseProtocolCachePolicy,
  ReloadIgnoringLocalCacheData,
};

// Who follows one request through its attempts (the run's progress line
// and report). Every copy of the request shares it; any member may be empty.
// Calls come from the session's or the pool's threads.
struct TransferObserver {
  std::function<void(std::uint64_t attempt)> attemptStarted;  // 1 for the first
  std::function<void(std::uint64_t sent)> bodyBytesSent;      // so far, in this attempt
  // The attempt's HTTP status, 0 when there was no response.
  std::function<void(std::uint64_t attempt, long httpStatus)> attemptEnded;
  std::function<void(std::chrono::nanoseconds delay)> retryScheduled;
};

struct URLRequest {
  std::string URL;
  std::string HTTPMethod = "GET";
  HTTPHeaders allHTTPHeaderFields;
  Data HTTPBody;
  double timeoutInterval = 60.0;  // seconds without any bytes moving
  URLRequestCachePolicy cachePolicy = URLRequestCachePolicy::UseProtocolCachePolicy;
  std::shared_ptr<const TransferObserver> observer;

  URLRequest() = default;
  explicit URLRequest(std::string url) : URL(std::move(url)) {}

  std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const {
    return allHTTPHeaderFields.valueForField(name);
  }
  void setValueForHTTPHeaderField(std::string value, std::string_view name) {
    allHTTPHeaderFields.setValue(std::move(value), name);
  }
  void addValueForHTTPHeaderField(std::string_view value, std::string_view name) {
    allHTTPHeaderFields.addValue(value, name);
  }
};

struct HTTPURLResponse {
  std::string URL;  // where the response came from, after redirects
  long statusCode = 0;
  HTTPHeaders allHeaderFields;

  std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const {
    return allHeaderFields.valueForField(name);
  }
};

}  // namespace symlift::network
