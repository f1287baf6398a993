#pragma once
// Base URLs of the services the tool talks to. Each can be overridden by an
// entry of the tool's info dictionary or, failing that, by an environment
// variable of the same name; that is how tests, the demo and self-hosted
// installations point symlift at another service.

#include <string>

namespace symlift::network {

inline constexpr const char* kAPIEndpointKey = "VantrelAPIEndpoint";
inline constexpr const char* kAPIEndpointDefault = "https://api.vantrel.example";
inline constexpr const char* kCMEndpointKey = "VantrelCMEndpoint";
inline constexpr const char* kCMEndpointDefault = "https://cm.vantrel.example";
inline constexpr const char* kUploadEndpointKey = "VantrelUploadEndpoint";

class SUPWebAPIClientEndpoints {
 public:
  // The info dictionary's entry under the key, else the environment variable
  // named by the key (an empty value counts), else the default. Returned
  // exactly as found, without validation.
  static std::string endpointForKey(const std::string& key, const std::string& baseURL);
  static std::string APIEndpoint();
  static std::string CMEndpoint();
  // Base of every symbol upload URL.
  static std::string UploadEndpoint();
};

}  // namespace symlift::network
