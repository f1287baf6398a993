#pragma once
// Addresses of the service's web pages that the tool's messages point to.

#include <string_view>

namespace symlift::cli {

inline constexpr std::string_view kSupportPageAddress = "https://omvara.example/support";
inline constexpr std::string_view kMigrationRoadMapAddress =
    "https://omvara.example/docs/vantrel/tesmer-migration";

}  // namespace symlift::cli
