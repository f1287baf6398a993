#include "cli/platform_names.h"

#include <array>

namespace symlift::cli {

namespace {
constexpr std::array<std::string_view, 3> kValidPlatforms{"ios", "mac", "tvos"};
}

bool isValidPlatform(std::string_view name) {
  for (auto platform : kValidPlatforms) {
    if (name == platform) return true;
  }
  return false;
}

std::string validPlatformsDescription() {
  std::string description;
  for (auto platform : kValidPlatforms) {
    if (!description.empty()) description += "', '";
    description += platform;
  }
  return description;
}

}  // namespace symlift::cli
