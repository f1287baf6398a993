#pragma once
// The platform names accepted on the command line.

#include <string>
#include <string_view>

namespace symlift::cli {

// Platform used when the given or derived one is not usable.
inline constexpr std::string_view kUnspecifiedPlatform = "unspecified";

// Exactly "ios", "mac" or "tvos" (case-sensitive).
bool isValidPlatform(std::string_view name);

// The accepted names joined by "', '"; messages supply the outer quotes.
std::string validPlatformsDescription();

}  // namespace symlift::cli
