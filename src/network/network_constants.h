#pragma once
// Names and values the network layer shares with the upload path.

#include <string>

namespace symlift::network {

// Base URL of the symbol upload service when nothing overrides it.
inline constexpr const char* kSymbolUploadDefaultBaseURL = "https://symbols.vantrel.example";
inline constexpr const char* kRetriesHeaderName = "X-Vantrel-Retries";
inline constexpr const char* kUserAgentHeaderName = "User-Agent";
inline constexpr const char* kNetworkErrorDomain = "SUPNetworkError";

class SUPNetworkConstants {
 public:
  // "Vantrel for Mac/<short version>", or "(null)" in place of a missing version.
  static std::string userAgentMacApp();
  // The User-Agent of a cSYM upload: "symlift/<short version>".
  static std::string symbolUploadUserAgent();
};

}  // namespace symlift::network
