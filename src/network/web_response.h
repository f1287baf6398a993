#pragma once
// What the web client hands back: status, headers, the raw bytes and the
// body decoded by content type (JSON or property list), and any error.

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include <nlohmann/json.hpp>

#include "network/url_request.h"
#include "support/error.h"
#include "support/property_list.h"

namespace symlift::network {

inline constexpr const char* kSUPWebClientErrorDomain = "SUPWebClientErrorDomain";
inline constexpr const char* kSUPWebClientMissingErrorDomain = "SUPWebClientMissingError";
inline constexpr std::int64_t kSUPWebClientUnexpectedStatusCode = -1;
inline constexpr std::int64_t kSUPWebClientTrustRefusedCode = -2;

// No body, decoded JSON, a decoded property list, or the bytes as received.
using SUPWebResponseBody = std::variant<std::monostate, nlohmann::json, support::PropertyList, Data>;

// The JSON value of the bytes, or nothing when they are not JSON.
std::optional<nlohmann::json> decodeJSONData(const Data& data);

struct SUPWebResponse {
  std::string requestURL;
  unsigned long statusCode = 0;
  SUPWebResponseBody body;
  support::ErrorPtr error;
  HTTPHeaders responseHeaders;
  Data responseData;

  // No error and a 2xx status.
  bool wasSuccessful() const { return !error && statusCode >= 200 && statusCode <= 299; }
  // "{request: …, status: …, body: …, error: …, headers: …}"
  std::string description() const;
};

}  // namespace symlift::network
