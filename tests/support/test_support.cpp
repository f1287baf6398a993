#include "support/test_support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <plist/plist.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace symlift::testing {

namespace fs = std::filesystem;

TempDir::TempDir() {
  std::string pattern = (fs::temp_directory_path() / "symlift-test-XXXXXX").string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  fs::remove_all(path_, ec);
}

fs::path TempDir::write(const std::string& relative, const std::string& contents) const {
  fs::path target = path_ / relative;
  fs::create_directories(target.parent_path());
  std::ofstream out(target, std::ios::binary);
  out << contents;
  return target;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

double timeScale() {
  const char* text = std::getenv("SYMLIFT_TEST_TIME_SCALE");
  double scale = text ? std::strtod(text, nullptr) : 1.0;
  return scale >= 1.0 ? scale : 1.0;
}

namespace {

// The parent's end of a pipe or pseudo-terminal (non-blocking); the child's
// end goes to child.
int openStream(ChildProcess::Stream stream, int& child) {
  int fds[2] = {-1, -1};
  if (stream == ChildProcess::Stream::Terminal) {
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

std::vector<char*> pointers(std::vector<std::string>& words) {
  std::vector<char*> result;
  for (auto& word : words) result.push_back(word.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace

ChildProcess::ChildProcess(std::vector<std::string> argv, const RunOptions& options, Stream out, Stream err) {
  std::map<std::string, std::string> environment;
  if (options.environment) {
    environment = *options.environment;
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS"})
      if (const char* value = std::getenv(name)) environment.try_emplace(name, value);
  } else {
    for (char** entry = environ; *entry; ++entry) {
      const std::string text(*entry);
      if (auto equals = text.find('='); equals != std::string::npos)
        environment[text.substr(0, equals)] = text.substr(equals + 1);
    }
  }
  for (const auto& [name, value] : options.extraEnvironment) environment[name] = value;
  std::vector<std::string> entries;
  for (const auto& [name, value] : environment) entries.push_back(name + "=" + value);

  int outChild = -1, errChild = -1;
  outFD_ = openStream(out, outChild);
  errFD_ = openStream(err, errChild);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outChild, 1);
  posix_spawn_file_actions_adddup2(&actions, errChild, 2);
  if (options.workingDirectory) posix_spawn_file_actions_addchdir_np(&actions, options.workingDirectory->c_str());
  if (posix_spawn(&pid_, argv[0].c_str(), &actions, nullptr, pointers(argv).data(), pointers(entries).data()) != 0)
    pid_ = -1;
  posix_spawn_file_actions_destroy(&actions);
  ::close(outChild);
  ::close(errChild);
}

ChildProcess::~ChildProcess() {
  if (running()) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  closeOutput();
  ::close(errFD_);
}

void ChildProcess::signal(int number) const { ::kill(pid_, number); }

void ChildProcess::closeOutput() {
  if (outFD_ >= 0) ::close(outFD_);
  outFD_ = -1;
}

bool ChildProcess::running() {
  if (ended_ || pid_ <= 0) return false;
  int status = 0;
  if (::waitpid(pid_, &status, WNOHANG) != pid_) return true;
  ended_ = true;
  if (WIFEXITED(status)) result_.status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result_.signal = WTERMSIG(status);
  return false;
}

bool ChildProcess::waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience * static_cast<long>(timeScale());
  while (!condition()) {
    if (!running() || std::chrono::steady_clock::now() > deadline) return condition();
    pump(2);
  }
  return true;
}

RunResult ChildProcess::finish(std::chrono::milliseconds limit) {
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

void ChildProcess::pump(int timeoutMilliseconds) {
  pollfd fds[2] = {{outFD_, POLLIN, 0}, {errFD_, POLLIN, 0}};
  ::poll(fds, 2, timeoutMilliseconds);
  char buffer[4096];
  for (auto [fd, text] : {std::pair{outFD_, &out}, std::pair{errFD_, &err}})
    for (ssize_t n; fd >= 0 && (n = ::read(fd, buffer, sizeof buffer)) > 0;)
      text->append(buffer, static_cast<std::size_t>(n));
}

RunResult runProgram(const std::vector<std::string>& argv, const RunOptions& options) {
  ChildProcess child(argv, options);
  if (!child.started()) {
    RunResult result;
    result.err = "spawn failed";
    return result;
  }
  return child.finish(std::chrono::milliseconds(static_cast<long>(options.timeoutSeconds * 1000)));
}

std::string symliftBinary() { return SYMLIFT_BINARY_PATH; }

RunResult runSymlift(const std::vector<std::string>& arguments, const RunOptions& options) {
  std::vector<std::string> argv{symliftBinary()};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return runProgram(argv, options);
}

std::string xmlPlist(const std::string& entries) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
         "<plist version=\"1.0\"><dict>" + entries + "</dict></plist>\n";
}

std::string binaryPlistOf(plist_t root) {
  char* bytes = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(root, &bytes, &length);
  std::string result(bytes, length);
  plist_to_bin_free(bytes);
  plist_free(root);
  return result;
}

std::string binaryPlist(const std::string& key, const std::string& value) {
  plist_t dict = plist_new_dict();
  plist_dict_set_item(dict, key.c_str(), plist_new_string(value.c_str()));
  return binaryPlistOf(dict);
}

std::size_t countOccurrences(const std::string& text, const std::string& part) {
  std::size_t n = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

static bool isMachO(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  unsigned char magic[4] = {};
  if (!in.read(reinterpret_cast<char*>(magic), 4)) return false;
  std::uint32_t be = (std::uint32_t{magic[0]} << 24) | (magic[1] << 16) | (magic[2] << 8) | magic[3];
  return be == 0xcafebabe || be == 0xcefaedfe || be == 0xcffaedfe || be == 0xfeedface || be == 0xfeedfacf;
}

std::vector<fs::path> machOFilesUnder(const fs::path& root) {
  std::vector<fs::path> files;
  std::error_code error;
  if (!fs::is_directory(root, error)) return files;
  for (auto it = fs::recursive_directory_iterator(root, error); !error && it != fs::recursive_directory_iterator();
       it.increment(error)) {
    if (it->is_regular_file(error) && !it->is_symlink(error) && isMachO(it->path())) files.push_back(it->path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

fs::path fixturesDir() { return SYMLIFT_FIXTURES_DIR; }

std::optional<fs::path> corpusDir() {
  fs::path dir = SYMLIFT_CORPUS_DIR;
  std::error_code ec;
  if (fs::is_directory(dir, ec)) return fs::canonical(dir, ec);
  return std::nullopt;
}

bool haveProgram(const std::string& name) {
  const char* path = std::getenv("PATH");
  if (!path) return false;
  std::stringstream dirs(path);
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    if (!dir.empty() && access((fs::path(dir) / name).c_str(), X_OK) == 0) return true;
  }
  return false;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string csymProblem(const std::string& text, const std::string& fileName) {
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
    if (std::stoll(fields[2]) < 0 || std::stoll(fields[2]) >= static_cast<long long>(counts[1]) ||
        std::stoll(fields[3]) < -1 || std::stoll(fields[3]) >= static_cast<long long>(counts[0]))
      return "index out of range: " + lines[r];
  }
  return {};
}

}  // namespace symlift::testing
