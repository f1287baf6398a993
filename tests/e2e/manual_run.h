#pragma once
// Runs of the real symlift binary for the end-to-end tests: in the
// foreground with a clean environment, or in the background with its output
// on a pipe or a terminal the test reads as it goes; and what runs leave
// behind (temporary files, uploads).

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "network/fake_service_process.h"
#include "support/test_support.h"

namespace symlift::testing::e2e {

constexpr const char* kNowhere = "http://127.0.0.1:9";  // nothing listens there
constexpr const char* kApp = "1:99:ios:e2e";

inline std::string fatAppDSYM() { return (fixturesDir() / "FatApp.dSYM").string(); }
inline std::string helloDSYM() { return (fixturesDir() / "Hello.dSYM").string(); }

// "-sdv -ai <app> -p ios <options> -- <paths>": a run by hand. The dSYM
// validator's warnings (left out by -sdv) have tests of their own.
inline std::vector<std::string> byHand(const std::vector<std::string>& options, const std::vector<std::string>& paths,
                                       const std::string& app = kApp) {
  std::vector<std::string> arguments{"-sdv", "-ai", app, "-p", "ios"};
  arguments.insert(arguments.end(), options.begin(), options.end());
  arguments.push_back("--");
  arguments.insert(arguments.end(), paths.begin(), paths.end());
  return arguments;
}

// Only PATH, TMPDIR and the upload endpoint, then extra: nothing of the
// caller's environment leaks in.
inline std::map<std::string, std::string> cleanEnvironment(const std::string& tmpdir,
                                                           const std::string& endpoint = kNowhere,
                                                           const std::map<std::string, std::string>& extra = {}) {
  std::map<std::string, std::string> environment{
      {"PATH", "/usr/bin:/bin"}, {"TMPDIR", tmpdir}, {"VantrelUploadEndpoint", endpoint}};
  for (const auto& [name, value] : extra) environment[name] = value;
  return environment;
}

inline RunResult runClean(const std::vector<std::string>& arguments, const std::string& tmpdir,
                          const std::string& endpoint = kNowhere, const std::map<std::string, std::string>& extra = {},
                          std::optional<std::string> workingDirectory = {}) {
  RunOptions options;
  options.environment = cleanEnvironment(tmpdir, endpoint, extra);
  options.workingDirectory = std::move(workingDirectory);
  options.timeoutSeconds = 90;
  return runSymlift(arguments, options);
}

// A run by hand of paths in workingDirectory, convert-only unless told not.
inline RunResult runByHand(const std::vector<std::string>& paths, const std::string& tmpdir,
                           const std::string& workingDirectory, bool convertOnly = true,
                           const std::map<std::string, std::string>& extra = {}) {
  return runClean(byHand(convertOnly ? std::vector<std::string>{"-c"} : std::vector<std::string>{}, paths), tmpdir,
                  kNowhere, extra, workingDirectory);
}

// The whole output, the exit status and an empty standard error.
inline void expectExactRun(const RunResult& result, int status, const std::string& out) {
  EXPECT_EQ(result.status, status);
  EXPECT_EQ(result.out, out);
  EXPECT_EQ(result.err, "");
}

// A row of a table of runs: the arguments, a word "{}" standing for each
// of the spellings in turn when there are any, and changes to the
// environment (nothing: the variable is unset); then the whole output and
// the exit status expected.
struct Row {
  std::vector<std::string> arguments;
  int status;
  std::string out;
  std::vector<std::string> spellings = {};
  std::map<std::string, std::optional<std::string>> environment = {};
};

inline std::string joined(const std::vector<std::string>& words, const char* separator = " ") {
  std::string text;
  for (const auto& word : words) text += (text.empty() ? "" : separator) + word;
  return text;
}

// Runs every row (in each spelling) in the environment as the row changes
// it: the exact output and status, and nothing on standard error.
inline void expectRows(const std::vector<Row>& rows, const std::map<std::string, std::string>& environment) {
  for (const Row& row : rows) {
    RunOptions options;
    options.environment = environment;
    options.timeoutSeconds = 60;
    std::string changes;
    for (const auto& [name, value] : row.environment) {
      if (value)
        (*options.environment)[name] = *value;
      else
        options.environment->erase(name);
      changes += " " + name + "=" + value.value_or("(unset)");
    }
    for (const std::string& spelling : row.spellings.empty() ? std::vector<std::string>{""} : row.spellings) {
      std::vector<std::string> arguments = row.arguments;
      std::replace(arguments.begin(), arguments.end(), std::string("{}"), spelling);
      SCOPED_TRACE("symlift " + joined(arguments) + changes);
      expectExactRun(runSymlift(arguments, options), row.status, row.out);
    }
  }
}

// The names of everything directly in folder, sorted.
inline std::vector<std::string> entryNames(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

// Everything below folder (links not followed), as sorted paths relative to
// it; nothing when there is no such folder.
inline std::vector<std::string> entriesBelow(const std::filesystem::path& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::recursive_directory_iterator it(folder, error), end; !error && it != end; it.increment(error))
    names.push_back(std::filesystem::relative(it->path(), folder).string());
  std::sort(names.begin(), names.end());
  return names;
}

inline void copyFixture(const std::string& name, const std::filesystem::path& to) {
  std::filesystem::create_directories(to.parent_path());
  std::filesystem::copy(fixturesDir() / name, to, std::filesystem::copy_options::recursive);
}

// Zips everything in folder (named relative to it) into archive.
inline bool zipFolder(const std::filesystem::path& folder, const std::filesystem::path& archive) {
  RunOptions options;
  options.workingDirectory = folder.string();
  return runProgram({"/usr/bin/zip", "-qr", archive.string(), "."}, options).status == 0;
}

// The gzip bodies the service stored, by file name ("<app>-<uuid>.csym.gz").
inline std::map<std::string, std::string> storedUploads(const FakeServiceProcess& service) {
  std::map<std::string, std::string> bodies;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(service.storePath(), error))
    if (entry.path().string().ends_with(".csym.gz")) bodies[entry.path().filename().string()] = readFile(entry.path());
  return bodies;
}

// symlift started in the background with exactly the given environment.
class BackgroundRun : public ChildProcess {
 public:
  BackgroundRun(std::vector<std::string> arguments, std::map<std::string, std::string> environment,
                const std::string& workingDirectory = ".", Stream out = Stream::Pipe, Stream err = Stream::Pipe)
      : ChildProcess(withBinary(std::move(arguments)), options(std::move(environment), workingDirectory), out, err) {}

 private:
  static std::vector<std::string> withBinary(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), symliftBinary());
    return arguments;
  }
  static RunOptions options(std::map<std::string, std::string> environment, const std::string& workingDirectory) {
    RunOptions options;
    options.environment = std::move(environment);
    options.workingDirectory = workingDirectory;
    return options;
  }
};

}  // namespace symlift::testing::e2e
