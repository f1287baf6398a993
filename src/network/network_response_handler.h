#pragma once
// Decides, for one finished HTTP exchange, whether it succeeded, failed for
// good or is worth another attempt, and builds the error describing a
// failure. Stateless; every callback runs before the method returns.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "network/url_request.h"
#include "support/error.h"

namespace symlift::network {

enum SUPNetworkClientResponseType : std::int64_t {
  SUPNetworkClientResponseSuccess = 0,
  SUPNetworkClientResponseInvalid = 1,
  SUPNetworkClientResponseFailure = 2,
  SUPNetworkClientResponseRetry = 3,
  SUPNetworkClientResponseBackOff = 4,
};

enum SUPNetworkErrorCode : std::int64_t {
  SUPNetworkErrorRetryable = -1,
  SUPNetworkErrorFailedToStartOperation = -3,
  SUPNetworkErrorResponseInvalid = -4,
  SUPNetworkErrorRequestFailed = -5,
  SUPNetworkErrorMaximumAttemptsReached = -6,
};

class SUPNetworkResponseHandler {
 public:
  using Response = std::optional<HTTPURLResponse>;

  static std::optional<std::string> headerForResponse(const Response& response, std::string_view key);
  // Seconds from "Retry-After": its leading decimal number (0 when the text
  // does not start with one, so the date form reads 0); 2.0 when missing or
  // negative.
  static double retryValueForResponse(const Response& response);
  static std::optional<std::string> requestIdForResponse(const Response& response);
  static bool contentTypeForResponseMatchesRequest(const Response& response, const URLRequest& request);
  static std::int64_t cancelReasonFromURLError(const support::ErrorPtr& error);
  static bool retryableURLError(const support::ErrorPtr& error);
  static support::ErrorPtr errorForCode(std::int64_t code, std::map<std::string, std::string> userInfo);
  static support::ErrorPtr errorForResponse(const Response& response, std::int64_t type, long status);
  static void clientResponseType(const Response& response,
                                 const std::function<void(std::int64_t type, long status)>& handler);
  static void handleCompletedResponse(const Response& response, const URLRequest& originalRequest,
                                      const support::ErrorPtr& error,
                                      const std::function<void(bool retry, support::ErrorPtr error)>& block);
};

}  // namespace symlift::network
