// Arbitrary bytes as a response head the way libcurl hands it over: one raw
// header line at a time (status lines, "Name: value" lines, anything else),
// then the classification of the finished exchange. The first two bytes
// choose the status code and which request headers the exchange had.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "network/network_response_handler.h"
#include "network/url_request.h"

using namespace symlift::network;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  static constexpr long kStatuses[] = {200, 201, 204, 304, 400, 404, 408, 413, 420, 429, 500, 503, 599, 302, 0, 700};
  const long status = kStatuses[data[0] % 16];
  std::string_view head(reinterpret_cast<const char*>(data + 2), size - 2);

  HTTPURLResponse response;
  response.statusCode = status;
  response.URL = "https://example.invalid/upload";
  // Each line keeps its line break, as libcurl delivers it.
  while (!head.empty()) {
    std::size_t end = head.find('\n');
    std::size_t length = end == std::string_view::npos ? head.size() : end + 1;
    response.allHeaderFields.takeResponseHeaderLine(head.substr(0, length));
    head.remove_prefix(length);
  }
  // Every stored field has a name without surrounding blanks and one entry.
  const auto& fields = response.allHeaderFields.fields();
  for (std::size_t i = 0; i < fields.size(); ++i) {
    if (fields[i].first.empty()) std::abort();
    for (std::size_t j = i + 1; j < fields.size(); ++j)
      if (HTTPHeaders::namesEqual(fields[i].first, fields[j].first)) std::abort();
  }

  URLRequest request("https://example.invalid/upload");
  if (data[1] & 1) request.setValueForHTTPHeaderField("application/json", "Accept");
  if (data[1] & 2) request.setValueForHTTPHeaderField("utf-8", "Accept-Charset");
  const SUPNetworkResponseHandler::Response answer = response;

  const double retry = SUPNetworkResponseHandler::retryValueForResponse(answer);
  if (!(retry >= 0)) std::abort();  // never negative, never NaN
  bool called = false;
  SUPNetworkResponseHandler::handleCompletedResponse(
      answer, request, nullptr, [&](bool retryable, const symlift::support::ErrorPtr& error) {
        called = true;
        // Only a success without an error is final and clean.
        if (!error && retryable) std::abort();
        if (error && error->userInfo.count("status_code") == 0) std::abort();
      });
  if (!called) std::abort();
  return 0;
}
