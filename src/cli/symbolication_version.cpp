#include "cli/symbolication_version.h"

#include "symbols/symbolication_proxy.h"

namespace symlift::cli {

float defaultMaxSymbolicationVersion() { return symbols::defaultMaxCoreSymbolicationVersion(); }

float maxSymbolicationVersionFromText(const std::optional<std::string>& text) {
  return text ? symbols::SUPSymbolicationProxy::leadingVersionNumber(*text) : 0.0f;
}

}  // namespace symlift::cli
