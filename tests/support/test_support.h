#pragma once
// Helpers shared by the tests: temporary folders, running a program with its
// output captured, and the locations of fixtures and the shared corpus.

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace symlift::testing {

// A fresh folder under the temporary directory, removed with its contents.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  std::string str() const { return path_.string(); }
  // Writes a file below the folder (parents created) and returns its path.
  std::filesystem::path write(const std::string& relative, const std::string& contents) const;

 private:
  std::filesystem::path path_;
};

struct RunResult {
  std::string out;
  std::string err;
  int status = -1;      // exit status, or -1 when killed by a signal
  int signal = 0;       // the signal that ended it, if any
  bool timedOut = false;
};

struct RunOptions {
  // When set, the child's whole environment; otherwise it inherits ours.
  std::optional<std::map<std::string, std::string>> environment;
  // Variables added to (or replacing in) the environment the child gets.
  std::map<std::string, std::string> extraEnvironment;
  std::optional<std::string> workingDirectory;
  double timeoutSeconds = 120;
};

// How much longer than usual a time limit in a test may be: the value of
// SYMLIFT_TEST_TIME_SCALE (at least 1), which the sanitized runs set because
// instrumented code runs several times slower.
double timeScale();

// Runs argv[0] (a path) with the given arguments, standard input from
// /dev/null, and returns its output and exit status. Kills it on time-out.
RunResult runProgram(const std::vector<std::string>& argv, const RunOptions& options = {});

// Runs the symlift binary built with the tests.
RunResult runSymlift(const std::vector<std::string>& arguments, const RunOptions& options = {});

std::string symliftBinary();
std::filesystem::path fixturesDir();
// The shared corpus of real dSYMs, or nothing when it is not beside the repo.
std::optional<std::filesystem::path> corpusDir();
// Whether a program can be found on PATH.
bool haveProgram(const std::string& name);

std::string readFile(const std::filesystem::path& path);

// An XML property list whose top-level dictionary holds entries (XML text
// such as "<key>K</key><string>V</string>").
std::string xmlPlist(const std::string& entries);
// A binary property list of a dictionary with one string value.
std::string binaryPlist(const std::string& key, const std::string& value);

// How many times part occurs in text (overlapping occurrences count).
std::size_t countOccurrences(const std::string& text, const std::string& part);

// The regular files below root (symbolic links not followed) that start with
// a thin or fat Mach-O magic, sorted; nothing when root is not a folder.
std::vector<std::filesystem::path> machOFilesUnder(const std::filesystem::path& root);

}  // namespace symlift::testing
