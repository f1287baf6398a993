// symlift in a CI pipeline: output that reaches a log line by line, colour
// and the progress line only on a terminal, the JSON report on every way
// out, and --strict.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "e2e/manual_run.h"
#include "network/fake_service_process.h"
#include "support/test_support.h"

extern char** environ;

namespace symlift::testing::e2e {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace std::chrono_literals;

// A symlift process whose standard output and error go where the test says:
// a pipe the test reads as it goes, or a pseudo-terminal.
class LiveRun {
 public:
  enum class Stream { Pipe, Terminal };

  LiveRun(std::vector<std::string> arguments, Stream out, Stream err, std::map<std::string, std::string> env) {
    outFD_ = open(out, outChild_);
    errFD_ = open(err, errChild_);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outChild_, 1);
    posix_spawn_file_actions_adddup2(&actions, errChild_, 2);
    arguments.insert(arguments.begin(), symliftBinary());
    std::vector<char*> argv;
    for (auto& word : arguments) argv.push_back(word.data());
    argv.push_back(nullptr);
    for (char** e = environ; *e; ++e) {
      const std::string entry(*e);
      env.try_emplace(entry.substr(0, entry.find('=')), entry.substr(entry.find('=') + 1));
    }
    std::vector<std::string> entries;
    for (const auto& [key, value] : env) entries.push_back(key + "=" + value);
    std::vector<char*> envp;
    for (auto& entry : entries) envp.push_back(entry.data());
    envp.push_back(nullptr);
    EXPECT_EQ(posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data()), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(outChild_);
    ::close(errChild_);
  }
  ~LiveRun() {
    if (pid_ > 0 && !exited_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    ::close(outFD_);
    ::close(errFD_);
  }

  // Reads standard output until it holds a whole line (or the time is up).
  std::string firstLine(std::chrono::milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (out.find('\n') == std::string::npos && std::chrono::steady_clock::now() < deadline) pump(20ms);
    return out.substr(0, out.find('\n'));
  }
  pid_t pid() const { return pid_; }
  // Reads standard output until it holds text; whether it does.
  bool waitForOutput(const std::string& text, std::chrono::milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (out.find(text) == std::string::npos && running() && std::chrono::steady_clock::now() < deadline)
      pump(20ms);
    return out.find(text) != std::string::npos;
  }
  bool running() {
    if (exited_) return false;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) finish(status);
    return !exited_;
  }
  // Reads everything until the process has ended; its exit status.
  int wait() {
    while (running()) pump(20ms);
    pump(0ms);
    return status_;
  }

  std::string out, err;

 private:
  int open(Stream stream, int& child) {
    int fds[2];
    if (stream == Stream::Terminal) {
      EXPECT_EQ(::openpty(&fds[0], &fds[1], nullptr, nullptr, nullptr), 0);
    } else {
      EXPECT_EQ(::pipe(fds), 0);
    }
    child = fds[1];
    ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
    ::fcntl(fds[0], F_SETFL, O_NONBLOCK);
    return fds[0];
  }
  void pump(std::chrono::milliseconds timeout) {
    pollfd fds[2] = {{outFD_, POLLIN, 0}, {errFD_, POLLIN, 0}};
    ::poll(fds, 2, static_cast<int>(timeout.count()));
    char buffer[4096];
    for (auto [fd, text] : {std::pair{outFD_, &out}, std::pair{errFD_, &err}})
      for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) text->append(buffer, static_cast<std::size_t>(n));
  }
  void finish(int status) {
    exited_ = true;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  pid_t pid_ = -1;
  int outFD_ = -1, errFD_ = -1, outChild_ = -1, errChild_ = -1;
  bool exited_ = false;
  int status_ = -1;
};

std::map<std::string, std::string> baseEnvironment(const TempDir& tmp, const std::string& endpoint) {
  return {{"TMPDIR", tmp.str()}, {"VantrelUploadEndpoint", endpoint}, {"SYMLIFT_TEST_MAX_RETRY_DELAY_MS", "1"}};
}

std::vector<std::string> uploadArguments(std::vector<std::string> extra, const std::string& path) {
  std::vector<std::string> arguments{"-sdv", "-ai", "1:5:ios:pipe", "-p", "ios"};
  arguments.insert(arguments.end(), extra.begin(), extra.end());
  arguments.push_back("--");
  arguments.push_back(path);
  return arguments;
}

TEST(PipelineUseTest, PipedOutputArrivesLineByLine) {
  FakeServiceProcess service({"--delay-ms", "4000"});
  ASSERT_TRUE(service.started());
  TempDir tmp;
  LiveRun run(uploadArguments({"-d"}, fatAppDSYM()), LiveRun::Stream::Pipe, LiveRun::Stream::Pipe,
              baseEnvironment(tmp, service.baseURL()));
  EXPECT_EQ(run.firstLine(3000ms * static_cast<long>(timeScale())), "symlift 0.1.0 build 1");
  EXPECT_TRUE(run.running()) << "the line came only once the run was over";
  EXPECT_EQ(run.wait(), 0) << run.out;
}

TEST(PipelineUseTest, ColourAndTheProgressLineOnlyOnATerminal) {
  struct Case {
    const char* name;
    LiveRun::Stream out, err;
    bool noColour;
    bool colour, progress;
  };
  const Case cases[] = {
      {"both to pipes", LiveRun::Stream::Pipe, LiveRun::Stream::Pipe, false, false, false},
      {"output on a terminal", LiveRun::Stream::Terminal, LiveRun::Stream::Pipe, false, true, false},
      {"output on a terminal, NO_COLOR", LiveRun::Stream::Terminal, LiveRun::Stream::Pipe, true, false, false},
      {"errors on a terminal", LiveRun::Stream::Pipe, LiveRun::Stream::Terminal, false, false, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir tmp;
    auto env = baseEnvironment(tmp, "http://127.0.0.1:9");
    if (c.noColour) env["NO_COLOR"] = "";
    LiveRun run(uploadArguments({"-c"}, fatAppDSYM()), c.out, c.err, env);
    EXPECT_EQ(run.wait(), 0) << run.out;
    EXPECT_NE(run.out.find("Successfully uploaded Vantrel symbols"), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find("\x1b[32mSuccessfully uploaded Vantrel symbols\x1b[0m") != std::string::npos, c.colour)
        << run.out;
    const bool drew = run.err.find("[0/2 slices] Converting ") != std::string::npos &&
                      run.err.find("[2/2 slices]") != std::string::npos;
    EXPECT_EQ(drew, c.progress) << run.err;
    // Whatever it drew, the line is gone at the end.
    if (c.progress) {
      EXPECT_TRUE(run.err.ends_with("\r\x1b[2K")) << run.err;
    } else {
      EXPECT_EQ(run.err, "");
    }
  }
}

// Runs the schema in docs/ over a report with Debian's JSON Schema validator.
void expectValidReport(const fs::path& report) {
  RunResult check = runProgram({"/usr/bin/python3", "-c",
                                "import json,sys,jsonschema\n"
                                "jsonschema.validate(json.load(open(sys.argv[1])), json.load(open(sys.argv[2])))",
                                report.string(), (fs::path(SYMLIFT_SOURCE_DIR) / "docs/report.schema.json").string()});
  EXPECT_EQ(check.status, 0) << check.err << readFile(report);
}

TEST(PipelineUseTest, ReportOnEveryWayOut) {
  struct Ending {
    const char* name;
    std::vector<std::string> service;
    bool brokenArchive;
    bool interrupt;
    int status;
    const char* sliceStatus;  // of every slice; nullptr: no slice
  };
  const Ending endings[] = {
      {"uploaded", {}, false, false, 0, "uploaded"},
      {"failed upload", {"--fail-first", "1000"}, false, false, 8, "failed"},
      {"archive that will not unpack", {}, true, false, 11, nullptr},
      {"interrupted while uploading", {"--delay-ms", "20000"}, false, true, 128 + SIGTERM, "failed"},
  };
  for (const Ending& ending : endings) {
    SCOPED_TRACE(ending.name);
    FakeServiceProcess service(ending.service);
    ASSERT_TRUE(service.started());
    TempDir tmp, work;
    const fs::path report = work.path() / "report.json";
    const std::string input =
        ending.brokenArchive ? work.write("Broken.zip", "not a zip").string() : fatAppDSYM();
    LiveRun run(uploadArguments({"-d", "--report", report.string()}, input), LiveRun::Stream::Pipe,
                LiveRun::Stream::Pipe, baseEnvironment(tmp, service.baseURL()));
    if (ending.interrupt) {
      // Once the upload has started, the service holds it.
      ASSERT_TRUE(run.waitForOutput("Uploading cSYM to ", 20s)) << run.out;
      ::kill(run.pid(), SIGTERM);
    }
    EXPECT_EQ(run.wait(), ending.status) << run.out;
    ASSERT_TRUE(fs::exists(report)) << run.out << run.err;
    expectValidReport(report);
    const json document = json::parse(readFile(report));
    EXPECT_EQ(document["exitStatus"], ending.status);
    EXPECT_EQ(document["interrupted"], ending.interrupt);
    ASSERT_EQ(document["inputs"].size(), 1u);
    EXPECT_EQ(document["inputs"][0]["path"], input);
    const json& dsyms = document["inputs"][0]["dsyms"];
    if (!ending.sliceStatus) {
      EXPECT_TRUE(dsyms.empty());
      EXPECT_FALSE(document["errors"].empty());
      continue;
    }
    ASSERT_EQ(dsyms.size(), 1u);
    ASSERT_EQ(dsyms[0]["slices"].size(), 2u);
    for (const json& slice : dsyms[0]["slices"]) {
      EXPECT_EQ(slice["status"], ending.sliceStatus) << slice.dump();
      EXPECT_GT(slice["symbols"].get<int>(), 0) << slice.dump();
    }
  }
}

TEST(PipelineUseTest, StrictRefusesUnknownOptionsAndRunsThatUploadNothing) {
  struct Case {
    std::vector<std::string> arguments;
    int status;
    const char* line;
  };
  TempDir empty;
  const Case cases[] = {
      {{"--strict", "--dry-run", "-ai", "1:5:ios:x", "-p", "ios", "--", fatAppDSYM()}, 3,
       "error: Unknown option --dry-run (run symlift --help for the options)\n"},
      {{"--dry-run", "-ai", "1:5:ios:x", "-p", "ios", "-val", "--", fatAppDSYM()}, 0, nullptr},
      {{"--strict", "-ai", "1:5:ios:x", "-p", "ios", "-c", "--", empty.str()}, 4,
       "error: Nothing was converted: no dSYM with architecture slices was found in the given paths\n"},
      {{"--strict", "-ai", "1:5:ios:x", "-p", "ios", "-c", "-sdv", "--", fatAppDSYM()}, 0, nullptr},
  };
  for (const Case& c : cases) {
    TempDir tmp;
    RunOptions options;
    options.extraEnvironment = baseEnvironment(tmp, "http://127.0.0.1:9");
    RunResult result = runSymlift(c.arguments, options);
    EXPECT_EQ(result.status, c.status) << result.out;
    if (c.line) {
      EXPECT_TRUE(result.out.ends_with(c.line)) << result.out;
    }
  }
}

// A DWARF file that goes away while an earlier one of its bundle is being
// uploaded is reported gone when its turn comes, and the run fails.
TEST(PipelineUseTest, DWARFFileGoneBeforeItsTurnFailsTheRun) {
  FakeServiceProcess service({"--delay-ms", "1500"});
  ASSERT_TRUE(service.started());
  TempDir tmp, work;
  const fs::path bundle = work.path() / "Two.dSYM";
  fs::copy(fixturesDir() / "FatApp.dSYM", bundle, fs::copy_options::recursive);
  const fs::path second = bundle / "Contents/Resources/DWARF/Second";
  fs::copy_file(fixturesDir() / "Hello.dSYM/Contents/Resources/DWARF/Hello", second);
  LiveRun run(uploadArguments({"-d"}, bundle.string()), LiveRun::Stream::Pipe, LiveRun::Stream::Pipe,
              baseEnvironment(tmp, service.baseURL()));
  ASSERT_TRUE(run.waitForOutput("Uploading cSYM to ", 20s)) << run.out;
  fs::remove(second);
  EXPECT_EQ(run.wait(), 8) << run.out;
  EXPECT_NE(run.out.find("error: Could not complete submission of dSYM at " + bundle.string() + ": "), std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("File no longer exists at " + second.string()), std::string::npos) << run.out;
}

}  // namespace
}  // namespace symlift::testing::e2e
