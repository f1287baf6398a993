#pragma once
// The process environment as the build-phase route reads it.

#include <optional>

#include "buildenv/build_environment.h"
#include "cli/options.h"

namespace symlift::cli {

// "NAME=value" entries (a null-terminated array, as environ) as a map; an
// entry without "=" is skipped, and the first entry of a name wins.
buildenv::Environment environmentFromEntries(const char* const* entries);

// The process's environment when -bp or -lp is given, otherwise nothing.
std::optional<buildenv::Environment> buildEnvironment(const ArgumentList& arguments);

}  // namespace symlift::cli
