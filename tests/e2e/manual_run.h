#pragma once
// A run of symlift by hand on some paths, as the write-error and
// temporary-file tests make it.

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/test_support.h"

namespace symlift::testing::e2e {

// Runs with a fixed app id, debug lines on, TMPDIR set and the upload
// endpoint pointed where nothing listens; convert-only (-c) unless told not.
inline RunResult runByHand(const std::vector<std::string>& paths, const std::string& tmpdir,
                           const std::string& workingDirectory, bool convertOnly = true,
                           std::map<std::string, std::string> extraEnvironment = {}) {
  std::vector<std::string> arguments{"-sdv", "-ai", "1:99:ios:e2e", "-p", "ios"};
  if (convertOnly) arguments.push_back("-c");
  arguments.push_back("--");
  arguments.insert(arguments.end(), paths.begin(), paths.end());
  RunOptions options;
  options.environment = std::map<std::string, std::string>{
      {"PATH", "/usr/bin:/bin"}, {"TMPDIR", tmpdir}, {"VantrelUploadEndpoint", "http://127.0.0.1:9"}};
  options.extraEnvironment = std::move(extraEnvironment);
  options.workingDirectory = workingDirectory;
  options.timeoutSeconds = 60;
  return runSymlift(arguments, options);
}

// Zips everything in folder (named relative to it) into archive.
inline bool zipFolder(const std::filesystem::path& folder, const std::filesystem::path& archive) {
  RunOptions options;
  options.workingDirectory = folder.string();
  return runProgram({"/usr/bin/zip", "-qr", archive.string(), "."}, options).status == 0;
}

// The names of everything directly in folder, sorted.
inline std::vector<std::string> entryNames(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

inline std::string fatAppDSYM() { return (fixturesDir() / "FatApp.dSYM").string(); }

}  // namespace symlift::testing::e2e
