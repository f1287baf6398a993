#pragma once
// Runs of the real symlift binary for the end-to-end tests: in the
// foreground with a clean environment, or in the background with its output
// on a pipe or a terminal the test reads as it goes; and what runs leave
// behind (temporary files, uploads, cSYMs).

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
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

inline std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
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

// Empty when text is a whole, self-consistent cSYM (and, given a file name,
// one named "<arch>-<uuid>.csym" after its header); otherwise what is wrong.
inline std::string csymProblem(const std::string& text, const std::string& fileName = "") {
  auto isNumber = [](const std::string& word) {
    return !word.empty() &&
           std::all_of(word.begin() + (word[0] == '-'), word.end(), [](char c) { return c >= '0' && c <= '9'; });
  };
  auto fieldsOf = [](const std::string& line) {
    std::vector<std::string> fields;
    std::istringstream in(line + "\t");
    for (std::string field; std::getline(in, field, '\t');) fields.push_back(field);
    return fields;
  };
  if (text.empty() || text.back() != '\n') return "does not end with a line break";
  const auto lines = linesOf(text);
  const auto header = fieldsOf(lines[0]);
  if (header.size() != 8 || header[0] != "code_mapping" || header[1] != "1") return "bad header: " + lines[0];
  if (!fileName.empty() && fileName != header[4] + "-" + header[3] + ".csym") return "not named after its header";
  std::size_t at = 1, counts[3] = {};
  const char* sections[3] = {"files", "symbols", "ranges"};
  for (std::size_t s = 0; s < 3; ++s) {
    if (!isNumber(header[5 + s])) return "bad count in header";
    counts[s] = std::stoull(header[5 + s]);
    if (at >= lines.size() || lines[at] != std::string(sections[s]) + "\t" + header[5 + s])
      return std::string("missing or inconsistent ") + sections[s] + " line";
    at += 1 + counts[s];
    if (at > lines.size()) return std::string("fewer ") + sections[s] + " than counted";
  }
  if (at != lines.size()) return "lines after the ranges";
  for (std::size_t r = lines.size() - counts[2]; r < lines.size(); ++r) {
    const auto fields = fieldsOf(lines[r]);
    if (fields.size() != 5 || !std::all_of(fields.begin(), fields.end(), isNumber)) return "bad range: " + lines[r];
    if (std::stoll(fields[2]) < -1 || std::stoll(fields[2]) >= static_cast<long long>(counts[1]) ||
        std::stoll(fields[3]) < -1 || std::stoll(fields[3]) >= static_cast<long long>(counts[0]))
      return "index out of range: " + lines[r];
  }
  return {};
}

// symlift started in the background, its standard output and error each on
// a pipe or a pseudo-terminal that the test reads as it goes.
class BackgroundRun {
 public:
  enum class Stream { Pipe, Terminal };

  BackgroundRun(std::vector<std::string> arguments, std::map<std::string, std::string> environment,
                const std::string& workingDirectory = ".", Stream out = Stream::Pipe, Stream err = Stream::Pipe) {
    int outChild = -1, errChild = -1;
    outFD_ = open(out, outChild);
    errFD_ = open(err, errChild);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outChild, 1);
    posix_spawn_file_actions_adddup2(&actions, errChild, 2);
    posix_spawn_file_actions_addchdir_np(&actions, workingDirectory.c_str());
    // A sanitized build's children report the way the tests do.
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS"})
      if (const char* value = std::getenv(name)) environment.try_emplace(name, value);
    std::vector<std::string> entries;
    for (const auto& [name, value] : environment) entries.push_back(name + "=" + value);
    arguments.insert(arguments.begin(), symliftBinary());
    if (posix_spawn(&pid_, arguments[0].c_str(), &actions, nullptr, pointers(arguments).data(),
                    pointers(entries).data()) != 0)
      pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(outChild);
    ::close(errChild);
  }
  ~BackgroundRun() {
    if (running()) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    closeOutput();
    ::close(errFD_);
  }
  BackgroundRun(const BackgroundRun&) = delete;
  BackgroundRun& operator=(const BackgroundRun&) = delete;

  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  void signal(int number) const { ::kill(pid_, number); }
  // The reader of standard output goes away.
  void closeOutput() {
    if (outFD_ >= 0) ::close(outFD_);
    outFD_ = -1;
  }

  bool running() {
    if (ended_ || pid_ <= 0) return false;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) != pid_) return true;
    ended_ = true;
    if (WIFEXITED(status)) result_.status = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result_.signal = WTERMSIG(status);
    return false;
  }

  // Reads the output until condition holds (true), or the run ends or
  // patience runs out first (false).
  bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience * static_cast<long>(timeScale());
    while (!condition()) {
      if (!running() || std::chrono::steady_clock::now() > deadline) return condition();
      pump(2);
    }
    return true;
  }

  // Reads everything until the run has ended (killed after limit): its
  // output, exit status or signal.
  RunResult finish(std::chrono::seconds limit = std::chrono::seconds(120)) {
    const auto deadline = std::chrono::steady_clock::now() + limit * static_cast<long>(timeScale());
    while (running()) {
      if (!result_.timedOut && std::chrono::steady_clock::now() > deadline) {
        ::kill(pid_, SIGKILL);
        result_.timedOut = true;
      }
      pump(20);
    }
    pump(0);
    result_.out = out;
    result_.err = err;
    return result_;
  }

  std::string out, err;

 private:
  static std::vector<char*> pointers(std::vector<std::string>& words) {
    std::vector<char*> result;
    for (auto& word : words) result.push_back(word.data());
    result.push_back(nullptr);
    return result;
  }
  static int open(Stream stream, int& child) {
    int fds[2] = {-1, -1};
    if (stream == Stream::Terminal) {
      EXPECT_EQ(::openpty(&fds[0], &fds[1], nullptr, nullptr, nullptr), 0);
      ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
      ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
    } else {
      EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0);
    }
    ::fcntl(fds[0], F_SETFL, O_NONBLOCK);
    child = fds[1];
    return fds[0];
  }
  void pump(int timeoutMilliseconds) {
    pollfd fds[2] = {{outFD_, POLLIN, 0}, {errFD_, POLLIN, 0}};
    ::poll(fds, 2, timeoutMilliseconds);
    char buffer[4096];
    for (auto [fd, text] : {std::pair{outFD_, &out}, std::pair{errFD_, &err}})
      for (ssize_t n; fd >= 0 && (n = ::read(fd, buffer, sizeof buffer)) > 0;)
        text->append(buffer, static_cast<std::size_t>(n));
  }

  pid_t pid_ = -1;
  int outFD_ = -1, errFD_ = -1;
  bool ended_ = false;
  RunResult result_;
};

}  // namespace symlift::testing::e2e
