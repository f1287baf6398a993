#include "network/network_constants.h"

#include <fmt/format.h>

#include "support/info_dictionary.h"

namespace symlift::network {

namespace {
// A missing entry prints as a null object would.
std::string shortVersionString() {
  return support::infoDictionaryString("CFBundleShortVersionString").value_or("(null)");
}
}  // namespace

std::string SUPNetworkConstants::userAgentMacApp() {
  return fmt::format("Vantrel for Mac/{}", shortVersionString());
}

std::string SUPNetworkConstants::symbolUploadUserAgent() {
  return fmt::format("{}/{}", "symlift", shortVersionString());
}

}  // namespace symlift::network
