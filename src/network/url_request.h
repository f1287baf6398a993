#pragma once
// An HTTP request as the client sends it, and the response head it gets
// back. Both are plain values: the client copies a request per transfer
// (sharing its body).

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

// A request body: set once and then shared by every copy of the request (a
// request is copied per attempt and per transfer; a body may be megabytes).
class RequestBody {
 public:
  RequestBody() = default;
  RequestBody(Data bytes) : bytes_(std::make_shared<const Data>(std::move(bytes))) {}  // implicit: a body is its bytes
  explicit RequestBody(std::shared_ptr<const Data> bytes) : bytes_(std::move(bytes)) {}  // shares them
  RequestBody& operator=(Data bytes) {
    bytes_ = std::make_shared<const Data>(std::move(bytes));
    return *this;
  }
  template <typename Iterator>
  void assign(Iterator first, Iterator last) {
    *this = Data(first, last);
  }

  const Data& bytes() const { return bytes_ ? *bytes_ : empty_; }
  operator const Data&() const { return bytes(); }  // implicit, likewise
  bool empty() const { return bytes().empty(); }
  std::size_t size() const { return bytes().size(); }
  const std::uint8_t* data() const { return bytes().data(); }
  friend bool operator==(const RequestBody& body, const Data& bytes) { return body.bytes() == bytes; }

 private:
  std::shared_ptr<const Data> bytes_;
  static inline const Data empty_{};
};

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
  RequestBody HTTPBody;
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
