#pragma once
// Where a run's app identifier comes from: the -ai option, a service plist,
// the service plist the build copied into the built product, or a Lumo
// project's JSON file, in that order of precedence.

#include <optional>
#include <string>
#include <string_view>

#include "buildenv/build_environment.h"
#include "cli/options.h"

namespace symlift::cli {

inline constexpr const char* kAppIDKey = "OMVARA_APP_ID";
inline constexpr std::string_view kServicePlistFileName = "OmvaraService-Info.plist";

// The first option given decides the source; the later ones are then not
// looked at, even when the chosen one fails. Failures print one error line and
// give nothing. A value that is present but empty is returned as it is.
std::optional<std::string> resolveAppID(const ArgumentList& arguments,
                                        const std::optional<buildenv::Environment>& environment);

// "OMVARA_APP_ID" of the plist (XML or binary) at path, unchanged.
std::optional<std::string> appIDFromServicePlist(const std::optional<std::string>& path);

// "OMVARA_APP_ID" of BUILT_PRODUCTS_DIR/UNLOCALIZED_RESOURCES_FOLDER_PATH/
// OmvaraService-Info.plist; nothing, silently, when it cannot be read.
std::optional<std::string> appIDFromBuildEnvironment(const buildenv::Environment& environment);

// "OMVARA_APP_ID" of the JSON object in the file at path, trimmed of white
// space and line breaks at both ends.
std::optional<std::string> appIDFromLumoProject(const std::optional<std::string>& path);

// Removes white space and line breaks (ASCII and the Unicode spaces and
// separators) from both ends of UTF-8 text.
std::string trimWhitespaceAndNewlines(std::string_view text);

}  // namespace symlift::cli
