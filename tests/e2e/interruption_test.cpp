// SIGINT, SIGTERM, SIGHUP and SIGPIPE in the middle of a run: the binary
// removes the cSYM, gzip and unpack files it made (and the folders it made
// for them) and exits with 128 + the signal's number.
// The tests start it in the background, wait until its temporary files are
// there, signal it and look at what is left.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

#include "e2e/manual_run.h"
#include "network/fake_service_process.h"
#include "support/test_support.h"

extern char** environ;

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// A symlift run in the background, its output going to a file.
class BackgroundRun {
 public:
  // Output goes to outputFile, or, when readEnd is given, to a pipe whose
  // reading end is handed back there.
  BackgroundRun(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& environment,
                const fs::path& workingDirectory, const fs::path& outputFile, int* readEnd = nullptr) {
    std::vector<std::string> argv{symliftBinary()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    std::vector<std::string> entries;
    for (const auto& [key, value] : environment) entries.push_back(key + "=" + value);
    std::vector<char*> envp;
    for (auto& e : entries) envp.push_back(e.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    int pipeEnds[2] = {-1, -1};
    if (readEnd && ::pipe2(pipeEnds, O_CLOEXEC) == 0) {
      *readEnd = pipeEnds[0];
      posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
    } else {
      posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                       0600);
    }
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    posix_spawn_file_actions_addchdir_np(&actions, workingDirectory.c_str());
    if (posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), envp.data()) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    if (pipeEnds[1] >= 0) ::close(pipeEnds[1]);
  }
  ~BackgroundRun() {
    if (pid_ > 0 && !reaped_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  BackgroundRun(const BackgroundRun&) = delete;
  BackgroundRun& operator=(const BackgroundRun&) = delete;

  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  void signal(int signal) { ::kill(pid_, signal); }
  // The raw wait status once the process has ended, or nothing if it is still running.
  std::optional<int> poll() {
    if (reaped_) return status_;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) != pid_) return std::nullopt;
    reaped_ = true;
    status_ = status;
    return status_;
  }
  std::optional<int> waitFor(std::chrono::seconds limit) {
    const auto deadline = Clock::now() + limit;
    while (Clock::now() < deadline) {
      if (auto status = poll()) return status;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return std::nullopt;
  }

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
  int status_ = 0;
};

// Polls the condition until it holds or the run ends or time runs out.
bool waitUntil(BackgroundRun& run, const std::function<bool()>& condition, std::chrono::seconds limit) {
  const auto deadline = Clock::now() + limit;
  while (Clock::now() < deadline) {
    if (condition()) return true;
    if (run.poll()) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return false;
}

// Whether the process has a child (Linux: its threads' children lists).
bool hasChildProcess(pid_t pid) {
  std::error_code error;
  const fs::path tasks = fs::path("/proc") / std::to_string(pid) / "task";
  for (const auto& task : fs::directory_iterator(tasks, error))
    if (!readFile(task.path() / "children").empty()) return true;
  return false;
}

std::vector<std::string> entriesBelow(const fs::path& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::recursive_directory_iterator it(folder, error), end; !error && it != end; it.increment(error))
    names.push_back(fs::relative(it->path(), folder).string());
  return names;
}

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const auto& name : names) text += name + "\n";
  return text;
}

class InterruptionTest : public ::testing::Test {
 protected:
  std::map<std::string, std::string> environment(const std::string& endpoint) const {
    return {{"PATH", "/usr/bin:/bin"}, {"TMPDIR", tmp_.str()}, {"VantrelUploadEndpoint", endpoint}};
  }
  void copyFatApp(const fs::path& to) {
    fs::create_directories(to.parent_path());
    fs::copy(fixturesDir() / "FatApp.dSYM", to, fs::copy_options::recursive);
  }
  // Expects the run to end by itself, with exit status 128 + signal, and
  // nothing left in its temporary directory.
  void expectInterrupted(BackgroundRun& run, int signal, bool toldSo = true) {
    auto status = run.waitFor(std::chrono::seconds(30));
    ASSERT_TRUE(status.has_value()) << "did not end after the signal";
    const std::string output = readFile(work_.path() / "output.txt");
    ASSERT_TRUE(WIFEXITED(*status)) << "ended by signal " << WTERMSIG(*status) << "\n" << output;
    EXPECT_EQ(WEXITSTATUS(*status), 128 + signal) << output;
    if (toldSo) {
      EXPECT_NE(output.find("error: Interrupted by "), std::string::npos) << output;
    }
    EXPECT_EQ(joined(entriesBelow(tmp_.path())), "");
  }

  TempDir work_;
  TempDir tmp_;
};

TEST_F(InterruptionTest, SIGINTDuringAConvertOnlyRunRemovesItsCSYMAndGzipFiles) {
  // Enough copies that the run is still busy when the first files appear.
  std::vector<std::string> arguments{"-sdv", "-ai", "1:99:ios:e2e", "-p", "ios", "-c", "--", "dsyms"};
  for (int i = 0; i < 150; ++i) copyFatApp(work_.path() / "dsyms" / ("App" + std::to_string(i) + ".dSYM"));
  BackgroundRun run(arguments, environment("http://127.0.0.1:9"), work_.path(), work_.path() / "output.txt");
  ASSERT_TRUE(run.started());

  bool sawCSYM = false, sawGzip = false;
  ASSERT_TRUE(waitUntil(run, [&] {
    for (const auto& name : entriesBelow(tmp_.path())) {
      sawCSYM = sawCSYM || name.ends_with(".csym");
      sawGzip = sawGzip || name.ends_with(".zip");
    }
    return sawCSYM && sawGzip;
  }, std::chrono::seconds(60))) << "the run ended before its files appeared:\n" << readFile(work_.path() / "output.txt");
  run.signal(SIGINT);
  expectInterrupted(run, SIGINT);
}

// An archive given by a path of several folders, so that the unpack folder
// needs parents of its own below TMPDIR: they go too.
TEST_F(InterruptionTest, EverySignalWhileAnUploadWaitsRemovesTheUnpackedArchive) {
  if (!haveProgram("zip") || !haveProgram("unzip")) GTEST_SKIP() << "zip and unzip are needed";
  for (int i = 0; i < 3; ++i) copyFatApp(work_.path() / "content" / ("App" + std::to_string(i) + ".dSYM"));
  fs::create_directories(work_.path() / "drop/box");
  ASSERT_TRUE(zipFolder(work_.path() / "content", work_.path() / "drop/box/Symbols.zip"));
  const fs::path unpacked = tmp_.path() / "drop/box/Symbols.zip.unzipped";
  const auto fatAppSize = fs::file_size(fixturesDir() / "FatApp.dSYM/Contents/Resources/DWARF/FatApp");
  // 0: the reader of standard output goes away (the next line meets a
  // closed pipe), rather than a signal from outside.
  for (int signal : {SIGTERM, SIGHUP, SIGPIPE, 0}) {
    SCOPED_TRACE(signal);
    FakeServiceProcess service({"--delay-ms", signal ? "20000" : "1500"});
    ASSERT_TRUE(service.started());
    int readEnd = -1;
    BackgroundRun run({"-sdv", "-ai", "1:99:ios:e2e", "-p", "ios", "--", "drop/box/Symbols.zip"},
                      environment(service.baseURL()), work_.path(), work_.path() / "output.txt",
                      signal ? nullptr : &readEnd);
    ASSERT_TRUE(run.started());
    // Unpacked completely and unzip gone: the first slices are then on their
    // way to the service, which holds every answer back.
    ASSERT_TRUE(waitUntil(run, [&] {
      for (const char* app : {"App0", "App1", "App2"}) {
        std::error_code error;
        if (fs::file_size(unpacked / (std::string(app) + ".dSYM") / "Contents/Resources/DWARF/FatApp", error) !=
            fatAppSize)
          return false;
      }
      return !hasChildProcess(run.pid());
    }, std::chrono::seconds(60))) << readFile(work_.path() / "output.txt");
    const auto signalled = Clock::now();
    if (signal) {
      run.signal(signal);
    } else {
      ::close(readEnd);
    }
    expectInterrupted(run, signal ? signal : SIGPIPE, /*toldSo=*/signal != 0 && signal != SIGPIPE);
    EXPECT_LT(Clock::now() - signalled, std::chrono::seconds(10)) << "waited for the service";
  }
}

TEST_F(InterruptionTest, SIGTERMStopsAnUnzipStillWritingBeforeRemovingItsFolder) {
  if (!haveProgram("zip") || !haveProgram("unzip")) GTEST_SKIP() << "zip and unzip are needed";
  // An unzip that unpacks and then keeps writing into the unpack folder, as
  // a slow unzip of a large archive would.
  const fs::path bin = work_.path() / "bin";
  const fs::path fakeUnzip = work_.write("bin/unzip",
                                         "#!/bin/sh\n"
                                         "/usr/bin/unzip \"$@\" || exit $?\n"
                                         "while :; do mkdir -p \"$5/late/more\"; sleep 0.02; done\n");
  fs::permissions(fakeUnzip, fs::perms::owner_all);
  copyFatApp(work_.path() / "content/App.dSYM");
  ASSERT_TRUE(zipFolder(work_.path() / "content", work_.path() / "Symbols.zip"));

  auto env = environment("http://127.0.0.1:9");
  env["PATH"] = bin.string() + ":/usr/bin:/bin";
  BackgroundRun run({"-sdv", "-ai", "1:99:ios:e2e", "-p", "ios", "-c", "--", "Symbols.zip"}, env, work_.path(),
                    work_.path() / "output.txt");
  ASSERT_TRUE(run.started());
  ASSERT_TRUE(waitUntil(run, [&] { return fs::exists(tmp_.path() / "Symbols.zip.unzipped/late/more"); },
                        std::chrono::seconds(60)))
      << readFile(work_.path() / "output.txt");
  run.signal(SIGTERM);
  expectInterrupted(run, SIGTERM);
  // Were the writer still alive, the folder would be back within moments.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(joined(entriesBelow(tmp_.path())), "");
}

TEST_F(InterruptionTest, ARunThatIsNotInterruptedKeepsItsConvertOnlyFiles) {
  // The clean-up belongs to the signal only: a finished convert-only run
  // leaves its products where they are.
  copyFatApp(work_.path() / "App.dSYM");
  BackgroundRun run({"-sdv", "-ai", "1:99:ios:e2e", "-p", "ios", "-c", "--", "App.dSYM"},
                    environment("http://127.0.0.1:9"), work_.path(), work_.path() / "output.txt");
  ASSERT_TRUE(run.started());
  auto status = run.waitFor(std::chrono::seconds(60));
  ASSERT_TRUE(status && WIFEXITED(*status));
  EXPECT_EQ(WEXITSTATUS(*status), 0) << readFile(work_.path() / "output.txt");
  std::size_t csyms = 0;
  for (const auto& name : entriesBelow(tmp_.path())) csyms += name.ends_with(".csym");
  EXPECT_EQ(csyms, 2u) << joined(entriesBelow(tmp_.path()));
}

}  // namespace
}  // namespace symlift::testing::e2e
