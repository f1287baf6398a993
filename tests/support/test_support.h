#pragma once
// Helpers shared by the tests: temporary folders, running a program with its
// output captured, and the locations of fixtures and the shared corpus.

#include <plist/plist.h>
#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
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

// argv[0] (a path) started in the background with standard input from
// /dev/null, its standard output and error each on a pipe or a
// pseudo-terminal that the test reads as it goes. A sanitized build's
// variables reach it whatever environment it is given, so that its reports
// fail the tests too. Killed, if still running, when the object goes.
class ChildProcess {
 public:
  enum class Stream { Pipe, Terminal };

  explicit ChildProcess(std::vector<std::string> argv, const RunOptions& options = {}, Stream out = Stream::Pipe,
                        Stream err = Stream::Pipe);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  void signal(int number) const;
  // The reader of standard output goes away.
  void closeOutput();
  bool running();
  // Reads the output until condition holds (true), or the run ends or
  // patience (times the time scale) runs out first (false).
  bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds patience);
  // Reads everything until the run has ended (killed after limit times the
  // time scale): its output, exit status or signal.
  RunResult finish(std::chrono::milliseconds limit = std::chrono::seconds(120));

  std::string out, err;

 private:
  void pump(int timeoutMilliseconds);

  pid_t pid_ = -1;
  int outFD_ = -1, errFD_ = -1;
  bool ended_ = false;
  RunResult result_;
};

// Runs a program to its end (see ChildProcess) and returns its output and
// exit status. Kills it on time-out.
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
// The binary property list of root, which it frees.
std::string binaryPlistOf(plist_t root);

// How many times part occurs in text (overlapping occurrences count).
std::size_t countOccurrences(const std::string& text, const std::string& part);

// The lines of text, without their line feeds.
std::vector<std::string> linesOf(const std::string& text);

// Empty when text is a whole, self-consistent cSYM (and, given a file name,
// one named "<arch>-<uuid>.csym" after its header); otherwise what is wrong.
std::string csymProblem(const std::string& text, const std::string& fileName = "");

// The regular files below root (symbolic links not followed) that start with
// a thin or fat Mach-O magic, sorted; nothing when root is not a folder.
std::vector<std::filesystem::path> machOFilesUnder(const std::filesystem::path& root);

}  // namespace symlift::testing
