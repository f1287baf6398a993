#include "buildenv/code_signed_resource.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace symlift::buildenv {

namespace {

std::string textOrNull(const std::optional<std::string>& text) { return text ? *text : std::string("(null)"); }

}  // namespace

std::string SUPCodeSignedResource::description() const {
  std::string date = "(null)";
  if (creationDate) {
    auto seconds = std::chrono::time_point_cast<std::chrono::seconds>(*creationDate);
    date = fmt::format("{:%Y-%m-%d %H:%M:%S} +0000", seconds);
  }
  return fmt::format("<{}: {} {} {} {} {}>", "SUPCodeSignedResource", fmt::ptr(this), textOrNull(bundleIdentifier),
                     textOrNull(displayVersion), textOrNull(buildVersion), date);
}

bool SUPCodeSignedResource::isEqual(const SUPCodeSignedResource& other) const {
  return creationDate == other.creationDate && path == other.path && bundleIdentifier == other.bundleIdentifier;
}

}  // namespace symlift::buildenv
