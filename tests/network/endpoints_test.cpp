#include "network/web_api_client_endpoints.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "network/network_constants.h"
#include "network/url_session.h"
#include "support/info_dictionary.h"

namespace symlift::network {
namespace {

// Sets or clears an environment variable for one test and restores it.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    if (value)
      setenv(name, value, 1);
    else
      unsetenv(name);
  }
  ~ScopedEnvironment() {
    if (old_)
      setenv(name_, old_->c_str(), 1);
    else
      unsetenv(name_);
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

TEST(EndpointsTest, EnvironmentOverridesDefaultAndEmptyCounts) {
  // The tool's info dictionary names no endpoint, so the environment decides.
  ASSERT_FALSE(support::infoDictionaryString(kUploadEndpointKey));
  {
    ScopedEnvironment unset(kUploadEndpointKey, nullptr);
    ScopedEnvironment unsetAPI(kAPIEndpointKey, nullptr);
    ScopedEnvironment unsetCM(kCMEndpointKey, nullptr);
    EXPECT_EQ(SUPWebAPIClientEndpoints::UploadEndpoint(), "https://symbols.vantrel.example");
    EXPECT_EQ(SUPWebAPIClientEndpoints::APIEndpoint(), "https://api.vantrel.example");
    EXPECT_EQ(SUPWebAPIClientEndpoints::CMEndpoint(), "https://cm.vantrel.example");
  }
  {
    ScopedEnvironment local(kUploadEndpointKey, "http://127.0.0.1:8080 ");
    ScopedEnvironment api(kAPIEndpointKey, "");
    EXPECT_EQ(SUPWebAPIClientEndpoints::UploadEndpoint(), "http://127.0.0.1:8080 ");  // as it stands
    EXPECT_EQ(SUPWebAPIClientEndpoints::APIEndpoint(), "");
  }
}

TEST(EndpointsTest, UserAgentsCarryTheShortVersion) {
  auto version = support::infoDictionaryString("CFBundleShortVersionString");
  ASSERT_TRUE(version);
  EXPECT_EQ(SUPNetworkConstants::userAgentMacApp(), "Vantrel for Mac/" + *version);
  EXPECT_EQ(SUPNetworkConstants::symbolUploadUserAgent(), "symlift/" + *version);
}

TEST(EndpointsTest, DefaultSessionConfigurationReadsTheCertificateVariables) {
  {
    ScopedEnvironment file("SSL_CERT_FILE", "/tmp/first.pem");
    ScopedEnvironment bundle("CURL_CA_BUNDLE", "/tmp/second.pem");
    ScopedEnvironment dir("SSL_CERT_DIR", "/tmp/certs");
    auto configuration = URLSessionConfiguration::defaultSessionConfiguration();
    EXPECT_EQ(configuration.caInfoPath, "/tmp/first.pem");
    EXPECT_EQ(configuration.caPath, "/tmp/certs");
  }
  {
    ScopedEnvironment file("SSL_CERT_FILE", nullptr);
    ScopedEnvironment bundle("CURL_CA_BUNDLE", "/tmp/second.pem");
    ScopedEnvironment dir("SSL_CERT_DIR", nullptr);
    auto configuration = URLSessionConfiguration::defaultSessionConfiguration();
    EXPECT_EQ(configuration.caInfoPath, "/tmp/second.pem");
    EXPECT_FALSE(configuration.caPath);
  }
}

}  // namespace
}  // namespace symlift::network
