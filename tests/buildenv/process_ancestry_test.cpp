// The names of a process's ancestors, read from /proc/<pid>/stat.

#include "buildenv/process_ancestry.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>

#include "buildenv/build_environment.h"

namespace symlift::buildenv {
namespace {

using Names = std::vector<std::string>;

// The name runs to the last closing parenthesis.
TEST(ProcessAncestryTest, ParsesTheStatLine) {
  const std::pair<const char*, std::optional<std::pair<std::string, long>>> rows[] = {
      {"4242 (bash) S 4100 4242 4242 34816 4300 4194304 1\n", std::pair{"bash", 4100}},
      {"77 (a) b) (c d) R 12 77 77 0", std::pair{"a) b) (c d", 12}},
      {"", std::nullopt},           {"12 bash S 1", std::nullopt}, {"12 (bash S 1", std::nullopt},
      {"12 )bash( S 1", std::nullopt}, {"12 (bash)", std::nullopt}, {"12 (bash) S x", std::nullopt},
  };
  for (const auto& [text, expected] : rows) {
    auto status = parseProcessStat(text);
    EXPECT_EQ(status ? std::optional(std::pair{status->commandName, status->parentID}) : std::nullopt, expected)
        << text;
  }
}

// pid → status; reads of a pid in `failing` fail that many times first.
struct FakeTable {
  std::map<long, ProcessStatus> processes;
  std::map<long, int> failing = {};
  std::vector<long> reads = {};
  std::optional<ProcessStatus> operator()(long pid) {
    reads.push_back(pid);
    if (failing[pid] > 0 && failing[pid]--) return std::nullopt;
    auto found = processes.find(pid);
    return found == processes.end() ? std::nullopt : std::optional(found->second);
  }
};

// Up to the first process (pid 1, or the outermost one of a PID namespace,
// whose parent 0 has no entry); five failed reads of one process end it.
TEST(ProcessAncestryTest, WalksUpToTheFirstProcess) {
  FakeTable table{{{300, {"symlift", 200}}, {200, {"Xcode", 1}}, {1, {"launchd", 0}}, {0, {"kernel", 0}}}};
  EXPECT_EQ(ancestorProcessNames(300, std::ref(table)), (Names{"symlift", "Xcode", "launchd"}));
  EXPECT_EQ(table.reads, (std::vector<long>{300, 200, 1}));
  FakeTable container{{{30, {"symlift", 7}}, {7, {"sh", 0}}}};
  EXPECT_EQ(ancestorProcessNames(30, std::ref(container)), (Names{"symlift", "sh"}));

  table.failing[200] = 4;
  EXPECT_EQ(ancestorProcessNames(300, std::ref(table)), (Names{"symlift", "Xcode", "launchd"}));
  table.reads.clear();
  table.failing[200] = 5;
  EXPECT_EQ(ancestorProcessNames(300, std::ref(table)), (Names{"symlift"}));
  EXPECT_EQ(table.reads, (std::vector<long>{300, 200, 200, 200, 200, 200}));
}

TEST(ProcessAncestryTest, RealProcessTable) {
  auto self = readProcessStatus(static_cast<long>(getpid()));
  ASSERT_TRUE(self);
  EXPECT_EQ(self->parentID, static_cast<long>(getppid()));
  auto parent = readProcessStatus(self->parentID);
  ASSERT_TRUE(parent);
  EXPECT_TRUE(hasAncestorProcessNamed("buildenv_tests"));  // the test runner itself
  EXPECT_TRUE(hasAncestorProcessNamed(parent->commandName));
  EXPECT_FALSE(hasAncestorProcessNamed("buildenv_test"));  // exact names only
  EXPECT_FALSE(hasAncestorProcessNamed("no-such-process"));
}

}  // namespace
}  // namespace symlift::buildenv
