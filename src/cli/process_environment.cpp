#include "cli/process_environment.h"

#include <string>

extern char** environ;

namespace symlift::cli {

buildenv::Environment environmentFromEntries(const char* const* entries) {
  buildenv::Environment environment;
  if (!entries) return environment;
  for (; *entries; ++entries) {
    std::string entry(*entries);
    auto equals = entry.find('=');
    if (equals == std::string::npos || equals == 0) continue;
    // getenv answers with the first entry of a name, so the map does too.
    environment.emplace(entry.substr(0, equals), entry.substr(equals + 1));
  }
  return environment;
}

std::optional<buildenv::Environment> buildEnvironment(const ArgumentList& arguments) {
  if (!arguments.hasFlag(kBuildPhaseOption) && !arguments.hasFlag(kLumoProjectOption)) return std::nullopt;
  return environmentFromEntries(environ);
}

}  // namespace symlift::cli
