#include "network/web_api_client_endpoints.h"

#include <gtest/gtest.h>

#include "network/network_constants.h"
#include "network/url_session.h"
#include "support/info_dictionary.h"
#include "support/scoped_environment.h"

namespace symlift::network {
namespace {

using symlift::testing::ScopedEnvironment;

TEST(EndpointsTest, TheEnvironmentAsItStandsElseTheDefault) {
  // The tool's info dictionary names no endpoint, so the environment decides.
  ASSERT_FALSE(support::infoDictionaryString(kUploadEndpointKey));
  struct Case {
    const char* variable;
    std::optional<std::string> value;
    std::string (*endpoint)();
    std::string expected;
  };
  const Case cases[] = {
      {kUploadEndpointKey, std::nullopt, &SUPWebAPIClientEndpoints::UploadEndpoint, "https://symbols.vantrel.example"},
      {kAPIEndpointKey, std::nullopt, &SUPWebAPIClientEndpoints::APIEndpoint, "https://api.vantrel.example"},
      {kCMEndpointKey, std::nullopt, &SUPWebAPIClientEndpoints::CMEndpoint, "https://cm.vantrel.example"},
      {kUploadEndpointKey, "http://127.0.0.1:8080 ", &SUPWebAPIClientEndpoints::UploadEndpoint,
       "http://127.0.0.1:8080 "},  // as it stands
      {kAPIEndpointKey, "", &SUPWebAPIClientEndpoints::APIEndpoint, ""},
  };
  for (const Case& c : cases) {
    ScopedEnvironment set(c.variable, c.value);
    EXPECT_EQ(c.endpoint(), c.expected) << c.variable;
  }
  auto version = support::infoDictionaryString("CFBundleShortVersionString");
  ASSERT_TRUE(version);
  EXPECT_EQ(SUPNetworkConstants::userAgentMacApp(), "Vantrel for Mac/" + *version);
  EXPECT_EQ(SUPNetworkConstants::symbolUploadUserAgent(), "symlift/" + *version);
}

}  // namespace
}  // namespace symlift::network
