#include "network/network_response_handler.h"

#include <charconv>
#include <cstdlib>
#include <string>

#include "network/network_constants.h"
#include "network/url_error.h"

namespace symlift::network {

namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) { return HTTPHeaders::namesEqual(a, b); }

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The leading decimal number of a text (optional sign, digits, fraction,
// exponent) after leading white space; 0 when there is none.
double leadingDecimalValue(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && isSpace(text[i])) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  std::size_t start = i, digits = 0;
  while (i < text.size() && isDigit(text[i])) ++i, ++digits;
  if (i < text.size() && text[i] == '.') {
    ++i;
    while (i < text.size() && isDigit(text[i])) ++i, ++digits;
  }
  if (digits == 0) return 0.0;
  // An exponent counts only when digits follow it.
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    std::size_t j = i + 1;
    if (j < text.size() && (text[j] == '+' || text[j] == '-')) ++j;
    if (j < text.size() && isDigit(text[j])) {
      while (j < text.size() && isDigit(text[j])) ++j;
      i = j;
    }
  }
  double value = 0.0;
  auto result = std::from_chars(text.data() + start, text.data() + i, value);
  if (result.ec == std::errc::result_out_of_range)  // over- or underflow: let strtod saturate
    value = std::strtod(std::string(text.substr(start, i - start)).c_str(), nullptr);
  return negative ? -value : value;
}

}  // namespace

std::optional<std::string> SUPNetworkResponseHandler::headerForResponse(const Response& response,
                                                                        std::string_view key) {
  if (!response) return std::nullopt;
  return response->valueForHTTPHeaderField(key);
}

double SUPNetworkResponseHandler::retryValueForResponse(const Response& response) {
  auto header = headerForResponse(response, "Retry-After");
  if (!header) return 2.0;
  double value = leadingDecimalValue(*header);
  return value < 0 ? 2.0 : value;
}

std::optional<std::string> SUPNetworkResponseHandler::requestIdForResponse(const Response& response) {
  return headerForResponse(response, "X-Request-Id");
}

bool SUPNetworkResponseHandler::contentTypeForResponseMatchesRequest(const Response& response,
                                                                     const URLRequest& request) {
  auto accept = request.valueForHTTPHeaderField("Accept");
  if (!accept) return true;
  auto contentType = headerForResponse(response, "Content-Type");
  if (!contentType) return false;

  static constexpr std::string_view separator = "; charset=";
  std::string_view type = *contentType;
  std::optional<std::string_view> charset;
  if (auto at = type.find(separator); at != std::string_view::npos) {
    std::string_view rest = type.substr(at + separator.size());
    // Only the piece up to a further separator is the charset.
    charset = rest.substr(0, rest.find(separator));
    type = type.substr(0, at);
  }
  if (!equalsIgnoringCase(type, *accept)) return false;
  auto acceptCharset = request.valueForHTTPHeaderField("Accept-Charset");
  if (!acceptCharset || !charset) return true;
  return equalsIgnoringCase(*charset, *acceptCharset);
}

std::int64_t SUPNetworkResponseHandler::cancelReasonFromURLError(const support::ErrorPtr& error) {
  if (!error || error->domain != kURLErrorDomain || error->code != URLErrorCancelled) return -1;
  auto it = error->userInfo.find(kURLErrorBackgroundTaskCancelledReasonKey);
  if (it == error->userInfo.end()) return -1;
  return std::strtoll(it->second.c_str(), nullptr, 10);
}

bool SUPNetworkResponseHandler::retryableURLError(const support::ErrorPtr& error) {
  if (!error || error->domain != kURLErrorDomain) return false;
  switch (error->code) {
    case URLErrorBadURL:
    case URLErrorUnsupportedURL:
    case URLErrorHTTPTooManyRedirects:
    case URLErrorRedirectToNonExistentLocation:
    case URLErrorUserCancelledAuthentication:
    case URLErrorUserAuthenticationRequired:
    case URLErrorAppTransportSecurityRequiresSecureConnection:
    case URLErrorBackgroundSessionRequiresSharedContainer:
    case URLErrorFileDoesNotExist:
    case URLErrorFileIsDirectory:
    case URLErrorDataLengthExceedsMaximum:
      return false;
    default:
      // The secure-connection and certificate failures.
      return !(error->code <= URLErrorSecureConnectionFailed && error->code >= URLErrorClientCertificateRequired);
  }
}

support::ErrorPtr SUPNetworkResponseHandler::errorForCode(std::int64_t code,
                                                          std::map<std::string, std::string> userInfo) {
  return support::makeError(kNetworkErrorDomain, code, std::move(userInfo));
}

support::ErrorPtr SUPNetworkResponseHandler::errorForResponse(const Response& response, std::int64_t type,
                                                              long status) {
  if (type == SUPNetworkClientResponseSuccess) return nullptr;
  std::int64_t code = type == SUPNetworkClientResponseFailure   ? SUPNetworkErrorRequestFailed
                      : type == SUPNetworkClientResponseInvalid ? SUPNetworkErrorResponseInvalid
                                                                : SUPNetworkErrorRetryable;
  return errorForCode(code, {
                                {"type", std::to_string(type)},
                                {"status_code", std::to_string(status)},
                                {"request_id", requestIdForResponse(response).value_or("")},
                                {"content_type", headerForResponse(response, "Content-Type").value_or("")},
                            });
}

void SUPNetworkResponseHandler::clientResponseType(const Response& response,
                                                   const std::function<void(std::int64_t, long)>& handler) {
  if (!response) {
    handler(SUPNetworkClientResponseInvalid, 0);
    return;
  }
  long status = response->statusCode;
  switch (status) {
    case 400: case 401: case 403: case 404: case 406: case 410: case 411: case 413: case 419: case 422: case 431:
      handler(SUPNetworkClientResponseFailure, status);
      return;
    case 420: case 429:
      handler(SUPNetworkClientResponseBackOff, status);
      return;
    case 408:
      handler(SUPNetworkClientResponseRetry, status);
      return;
    case 200: case 201: case 202: case 204: case 304:
      handler(SUPNetworkClientResponseSuccess, status);
      return;
    default:
      break;
  }
  if (status >= 500 && status <= 599)
    handler(SUPNetworkClientResponseRetry, status);
  else
    handler(SUPNetworkClientResponseInvalid, status);
}

void SUPNetworkResponseHandler::handleCompletedResponse(
    const Response& response, const URLRequest& originalRequest, const support::ErrorPtr& error,
    const std::function<void(bool, support::ErrorPtr)>& block) {
  if (error) {
    block(retryableURLError(error), error);
    return;
  }
  clientResponseType(response, [&](std::int64_t type, long status) {
    switch (type) {
      case SUPNetworkClientResponseSuccess:
        if (contentTypeForResponseMatchesRequest(response, originalRequest))
          block(false, nullptr);
        else
          block(false, errorForResponse(response, SUPNetworkClientResponseInvalid, status));
        return;
      case SUPNetworkClientResponseInvalid:
      case SUPNetworkClientResponseFailure:
        block(false, errorForResponse(response, type, status));
        return;
      default:
        block(true, errorForResponse(response, type, status));
        return;
    }
  });
}

}  // namespace symlift::network
