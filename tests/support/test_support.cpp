#include "support/test_support.h"

#include <fcntl.h>
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

RunResult runProgram(const std::vector<std::string>& argv, const RunOptions& options) {
  TempDir capture;
  std::string outPath = (capture.path() / "out").string();
  std::string errPath = (capture.path() / "err").string();

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (options.workingDirectory)
    posix_spawn_file_actions_addchdir_np(&actions, options.workingDirectory->c_str());

  std::map<std::string, std::string> env;
  if (options.environment) {
    env = *options.environment;
    // A sanitized build's children report (and fail) the way the tests do,
    // whatever environment a test gives them.
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS"})
      if (const char* value = std::getenv(name)) env.try_emplace(name, value);
  } else {
    for (char** e = environ; *e; ++e) {
      std::string entry(*e);
      auto eq = entry.find('=');
      if (eq != std::string::npos) env[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
  }
  for (const auto& [k, v] : options.extraEnvironment) env[k] = v;
  std::vector<std::string> envStrings;
  for (const auto& [k, v] : env) envStrings.push_back(k + "=" + v);
  std::vector<char*> envp;
  for (auto& s : envStrings) envp.push_back(s.data());
  envp.push_back(nullptr);

  std::vector<std::string> args = argv;
  std::vector<char*> argp;
  for (auto& a : args) argp.push_back(a.data());
  argp.push_back(nullptr);

  pid_t pid = 0;
  int rc = posix_spawn(&pid, args[0].c_str(), &actions, nullptr, argp.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  RunResult result;
  if (rc != 0) {
    result.err = "spawn failed";
    return result;
  }

  auto deadline = std::chrono::steady_clock::now() +
                  std::chrono::milliseconds(static_cast<long>(options.timeoutSeconds * timeScale() * 1000));
  int wstatus = 0;
  for (;;) {
    pid_t done = waitpid(pid, &wstatus, WNOHANG);
    if (done == pid) break;
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &wstatus, 0);
      result.timedOut = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (WIFEXITED(wstatus)) result.status = WEXITSTATUS(wstatus);
  if (WIFSIGNALED(wstatus)) result.signal = WTERMSIG(wstatus);
  result.out = readFile(outPath);
  result.err = readFile(errPath);
  return result;
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

std::string binaryPlist(const std::string& key, const std::string& value) {
  plist_t dict = plist_new_dict();
  plist_dict_set_item(dict, key.c_str(), plist_new_string(value.c_str()));
  char* bytes = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(dict, &bytes, &length);
  std::string result(bytes, length);
  plist_to_bin_free(bytes);
  plist_free(dict);
  return result;
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

}  // namespace symlift::testing
