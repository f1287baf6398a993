#pragma once
// The informational output of a run: the usage text, the version line and the
// debug block shown before processing.

#include <optional>
#include <string>
#include <vector>

#include "cli/upload_settings.h"

namespace symlift::cli {

void printUsage();

// "symlift <short version> build <build number>" from the embedded
// information dictionary; a missing value is shown as "?".
void printVersion();

// Lowers the console log to debug level, then prints the run's settings and,
// in CI, what the CI probes found.
void printDebugInfo(const std::vector<std::string>& paths, const SYLUploadSettings& settings);

// The paths as the debug block shows them: ["a", "b"].
std::string debugPathsDescription(const std::vector<std::string>& paths);

// The version line's text for the given version strings.
std::string versionLine(const std::optional<std::string>& shortVersion, const std::optional<std::string>& build);

}  // namespace symlift::cli
