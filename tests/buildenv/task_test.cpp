#include "buildenv/task.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>

#include "support/test_support.h"

namespace symlift::buildenv {
namespace {

using symlift::testing::TempDir;

struct Result {
  bool called = false;
  std::string err, out;
  std::int32_t status = -1;
};

Result runShell(const std::string& script, double timeout = 0,
                const std::optional<std::string>& workingDirectory = std::nullopt,
                const std::optional<SUPTask::EnvironmentMap>& environment = std::nullopt) {
  Result result;
  bool launched = SUPTask::launchWithPath("/bin/sh", workingDirectory, SUPTask::Arguments{"-c", script}, environment,
                                          timeout, [&](const std::string& err, const std::string& out, std::int32_t status) {
                                            result.called = true;
                                            result.err = err;
                                            result.out = out;
                                            result.status = status;
                                          });
  EXPECT_TRUE(launched);
  return result;
}

TEST(TaskRunner, StatusAndStandardErrorLine) {
  auto result = runShell("echo 'no such archive' >&2; exit 3");
  EXPECT_TRUE(result.called);
  EXPECT_EQ(result.err, "no such archive\n");
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.status, 3);
}

TEST(TaskRunner, MegabyteOnStandardOutputArrivesWhole) {
  // Far more than a pipe buffer holds: the child would block if nobody read.
  auto result = runShell("head -c 1048576 /dev/zero | tr '\\0' 'a'");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, std::string(1048576, 'a'));
  EXPECT_EQ(result.err, "");
}

TEST(TaskRunner, BothStreamsBusyAtOnce) {
  // Interleaved writes to both streams, each well past a pipe buffer.
  auto result = runShell(
      "i=0; while [ $i -lt 4000 ]; do echo \"out line $i with some padding to make it longer\"; "
      "echo \"err line $i with some padding to make it longer\" >&2; i=$((i+1)); done");
  EXPECT_EQ(result.status, 0);
  std::string expectedOut, expectedErr;
  for (int i = 0; i < 4000; ++i) {
    expectedOut += "out line " + std::to_string(i) + " with some padding to make it longer\n";
    expectedErr += "err line " + std::to_string(i) + " with some padding to make it longer\n";
  }
  EXPECT_EQ(result.out, expectedOut);
  EXPECT_EQ(result.err, expectedErr);
}

TEST(TaskRunner, BinaryBytesUntouched) {
  auto result = runShell("printf 'a\\000b\\377\\n'");
  EXPECT_EQ(result.out, std::string("a\0b\xff\n", 5));
  // Not UTF-8, so the text form is nothing.
  EXPECT_EQ(SUPTask::stdoutWithLaunchPath("/usr/bin/printf", {"a\\377"}), std::nullopt);
}

TEST(TaskRunner, TimeLimitTerminatesAndStillCompletes) {
  auto start = std::chrono::steady_clock::now();
  auto result = runShell("echo started; exec sleep 10", 1.0);
  double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_TRUE(result.called);
  EXPECT_EQ(result.status, 128 + SIGTERM);
  EXPECT_EQ(result.out, "started\n");
  EXPECT_GE(elapsed, 1.0);
  EXPECT_LT(elapsed, 1.5);
}

TEST(TaskRunner, TimeLimitEscalatesWhenTerminationIsIgnored) {
  auto start = std::chrono::steady_clock::now();
  auto result = runShell("trap '' TERM; echo ready; while :; do sleep 1; done", 0.3);
  double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_TRUE(result.called);
  EXPECT_EQ(result.status, 128 + SIGKILL);
  EXPECT_GE(elapsed, 5.3);
  EXPECT_LT(elapsed, 7.0);
}

TEST(TaskRunner, QuickProgramUnderATimeLimitIsNotKilled) {
  auto start = std::chrono::steady_clock::now();
  auto result = runShell("echo done; exit 0", 5);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "done\n");
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 0.5);
}

TEST(TaskRunner, SignalledChildReportsHundredTwentyEightPlusSignal) {
  EXPECT_EQ(runShell("kill -9 $$").status, 128 + SIGKILL);
}

TEST(TaskRunner, StandardInputIsAtEndOfFile) {
  // A program reading its input does not wait forever.
  auto result = runShell("cat; echo after", 5);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "after\n");
}

TEST(TaskRunner, GrandchildHoldingThePipesDoesNotBlock) {
  auto start = std::chrono::steady_clock::now();
  auto result = runShell("(sleep 3 &) ; echo parent-done");
  EXPECT_EQ(result.out, "parent-done\n");
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 2.5);
}

TEST(TaskRunner, MissingProgramIsReportedWithoutCallingTheCompletion) {
  bool called = false;
  auto completion = [&](const std::string&, const std::string&, std::int32_t) { called = true; };
  EXPECT_FALSE(SUPTask::launchWithPath("/nonexistent/program", std::nullopt, std::nullopt, completion));
  EXPECT_FALSE(SUPTask::launchWithPath("/bin/sh", std::string("/nonexistent/folder"), SUPTask::Arguments{"-c", "true"},
                                       completion));
  TempDir dir;
  auto notExecutable = dir.write("script.sh", "#!/bin/sh\necho hi\n");
  EXPECT_FALSE(SUPTask::launchWithPath(notExecutable.string(), std::nullopt, std::nullopt, completion));
  EXPECT_FALSE(called);

  EXPECT_EQ(SUPTask::stdoutWithLaunchPath("/nonexistent/program", {}), std::nullopt);
  EXPECT_EQ(SUPTask::stderrWithLaunchPath("/nonexistent/program", {}), std::nullopt);
  EXPECT_FALSE(SUPTask::runTaskWithLaunchPath("/nonexistent/program", {}));
}

TEST(TaskRunner, EnvironmentIsExactlyTheOneGivenOrInherited) {
  auto result = runShell("echo \"[$SYMLIFT_PROBE][${HOME-unset}]\"", 0, std::nullopt,
                         SUPTask::EnvironmentMap{{"SYMLIFT_PROBE", "one two"}});
  EXPECT_EQ(result.out, "[one two][unset]\n");

  ::setenv("SYMLIFT_INHERITED_PROBE", "from parent", 1);
  result = runShell("echo \"$SYMLIFT_INHERITED_PROBE\"");
  ::unsetenv("SYMLIFT_INHERITED_PROBE");
  EXPECT_EQ(result.out, "from parent\n");
}

TEST(TaskRunner, WorkingDirectoryAndArguments) {
  TempDir dir;
  std::string canonical = std::filesystem::canonical(dir.path()).string();
  auto result = runShell("pwd -P", 0, dir.str());
  EXPECT_EQ(result.out, canonical + "\n");

  // Arguments reach the program unsplit, with the program path as argv[0].
  result = runShell("printf '%s|' \"$0\" \"$@\"; echo", 0, std::nullopt, std::nullopt);
  EXPECT_EQ(result.out, "/bin/sh|\n");
  std::optional<std::string> out =
      SUPTask::stdoutWithLaunchPath("/bin/sh", {"-c", "printf '%s|' \"$@\"", "zero", "a b", "", "c"});
  EXPECT_EQ(out, "a b||c|");

  EXPECT_TRUE(SUPTask::runTaskWithLaunchPath("/bin/sh", dir.str(), {"-c", "touch made-here"}));
  EXPECT_TRUE(std::filesystem::exists(dir.path() / "made-here"));
  EXPECT_FALSE(SUPTask::runTaskWithLaunchPath("/bin/sh", {"-c", "exit 1"}));
}

TEST(TaskRunner, StderrAsText) {
  EXPECT_EQ(SUPTask::stderrWithLaunchPath("/bin/sh", {"-c", "echo out; echo err >&2"}), "err\n");
}

TEST(TaskRunner, WhichFindsUnzip) {
  if (!symlift::testing::haveProgram("unzip")) GTEST_SKIP() << "unzip is not installed";
  auto path = SUPTask::stdoutWithLaunchPath("/usr/bin/which", {"unzip"});
  ASSERT_TRUE(path);
  ASSERT_FALSE(path->empty());
  EXPECT_EQ(path->back(), '\n');
  std::string trimmed = path->substr(0, path->size() - 1);
  EXPECT_EQ(std::filesystem::path(trimmed).filename(), "unzip");
  EXPECT_TRUE(std::filesystem::exists(trimmed));
}

TEST(TaskUTF8, Validation) {
  EXPECT_TRUE(SUPTask::isValidUTF8(""));
  EXPECT_TRUE(SUPTask::isValidUTF8("plain /usr/bin/unzip\n"));
  EXPECT_TRUE(SUPTask::isValidUTF8("Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC \xF0\x9F\x98\x80"));
  EXPECT_FALSE(SUPTask::isValidUTF8("\xFF"));
  EXPECT_FALSE(SUPTask::isValidUTF8("\xC3"));              // truncated
  EXPECT_FALSE(SUPTask::isValidUTF8("\xC0\xAF"));          // overlong "/"
  EXPECT_FALSE(SUPTask::isValidUTF8("\xED\xA0\x80"));      // surrogate
  EXPECT_FALSE(SUPTask::isValidUTF8("\xF4\x90\x80\x80"));  // past U+10FFFF
  EXPECT_FALSE(SUPTask::isValidUTF8("\xE2\x28\xA1"));      // bad continuation
}

}  // namespace
}  // namespace symlift::buildenv
