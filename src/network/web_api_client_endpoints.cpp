#include "network/web_api_client_endpoints.h"

#include <cstdlib>

#include "network/network_constants.h"
#include "support/info_dictionary.h"

namespace symlift::network {

std::string SUPWebAPIClientEndpoints::endpointForKey(const std::string& key, const std::string& baseURL) {
  if (auto value = support::infoDictionaryString(key.c_str())) return *value;
  if (const char* value = std::getenv(key.c_str())) return value;
  return baseURL;
}

std::string SUPWebAPIClientEndpoints::APIEndpoint() { return endpointForKey(kAPIEndpointKey, kAPIEndpointDefault); }

std::string SUPWebAPIClientEndpoints::CMEndpoint() { return endpointForKey(kCMEndpointKey, kCMEndpointDefault); }

std::string SUPWebAPIClientEndpoints::UploadEndpoint() {
  return endpointForKey(kUploadEndpointKey, kSymbolUploadDefaultBaseURL);
}

}  // namespace symlift::network
