#include "buildenv/process_ancestry.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>

#include "buildenv/build_environment.h"

namespace symlift::buildenv {
namespace {

TEST(ProcessStat, ParsesNameAndParent) {
  auto status = parseProcessStat("4242 (bash) S 4100 4242 4242 34816 4300 4194304 1\n");
  ASSERT_TRUE(status);
  EXPECT_EQ(status->commandName, "bash");
  EXPECT_EQ(status->parentID, 4100);
}

TEST(ProcessStat, NameRunsToTheLastClosingParenthesis) {
  auto status = parseProcessStat("77 (a) b) (c d) R 12 77 77 0");
  ASSERT_TRUE(status);
  EXPECT_EQ(status->commandName, "a) b) (c d");
  EXPECT_EQ(status->parentID, 12);

  status = parseProcessStat("1 () S 0 1 1");
  ASSERT_TRUE(status);
  EXPECT_EQ(status->commandName, "");
  EXPECT_EQ(status->parentID, 0);
}

TEST(ProcessStat, MalformedTextGivesNothing) {
  for (const char* text : {"", "12 bash S 1", "12 (bash S 1", "12 bash) S 1", "12 )bash( S 1", "12 (bash)",
                           "12 (bash) S", "12 (bash) S x", "12 (bash) S "})
    EXPECT_FALSE(parseProcessStat(text)) << text;
}

// A process table: pid → (name, parent); reads of the pids in `failing`
// fail as often as given before succeeding.
struct FakeTable {
  std::map<long, ProcessStatus> processes;
  std::map<long, int> failing;
  std::vector<long> reads;
  std::optional<ProcessStatus> operator()(long pid) {
    reads.push_back(pid);
    if (failing[pid] > 0) {
      --failing[pid];
      return std::nullopt;
    }
    auto found = processes.find(pid);
    if (found == processes.end()) return std::nullopt;
    return found->second;
  }
};

TEST(ProcessAncestry, WalksUpToTheFirstProcessAndStops) {
  FakeTable table;
  table.processes = {{300, {"symlift", 200}}, {200, {"bash", 1}}, {1, {"launchd", 0}}, {0, {"kernel", 0}}};
  EXPECT_EQ(ancestorProcessNames(300, std::ref(table)), (std::vector<std::string>{"symlift", "bash", "launchd"}));
  EXPECT_EQ(table.reads, (std::vector<long>{300, 200, 1}));
}

TEST(ProcessAncestry, RetriesAFailingReadUpToFiveTimes) {
  FakeTable table;
  table.processes = {{300, {"symlift", 200}}, {200, {"Xcode", 1}}, {1, {"launchd", 0}}};
  table.failing[200] = 4;  // succeeds on the fifth read
  EXPECT_EQ(ancestorProcessNames(300, std::ref(table)), (std::vector<std::string>{"symlift", "Xcode", "launchd"}));

  table.reads.clear();
  table.failing[200] = 5;  // never within five reads: the chain ends there
  EXPECT_EQ(ancestorProcessNames(300, std::ref(table)), (std::vector<std::string>{"symlift"}));
  EXPECT_EQ(table.reads, (std::vector<long>{300, 200, 200, 200, 200, 200}));
}

TEST(ProcessAncestry, ParentOutsideTheTableEndsTheChain) {
  // In a PID namespace the outermost visible process reports parent 0,
  // which has no entry.
  FakeTable table;
  table.processes = {{30, {"symlift", 7}}, {7, {"sh", 0}}};
  EXPECT_EQ(ancestorProcessNames(30, std::ref(table)), (std::vector<std::string>{"symlift", "sh"}));
}

TEST(ProcessAncestry, ACycleDoesNotLoopForever) {
  FakeTable table;
  table.processes = {{10, {"a", 11}}, {11, {"b", 10}}};
  EXPECT_LE(ancestorProcessNames(10, std::ref(table)).size(), 4096u);
}

TEST(ProcessAncestry, RealProcessTable) {
  // The test runner's own command name (at most 15 bytes) is found.
  auto self = readProcessStatus(static_cast<long>(getpid()));
  ASSERT_TRUE(self);
  EXPECT_EQ(self->parentID, static_cast<long>(getppid()));
  EXPECT_EQ(self->commandName, std::string("buildenv_tests").substr(0, 15));
  EXPECT_TRUE(hasAncestorProcessNamed("buildenv_tests"));
  // And so is the parent that started it.
  auto parent = readProcessStatus(self->parentID);
  ASSERT_TRUE(parent);
  EXPECT_TRUE(hasAncestorProcessNamed(parent->commandName));
  EXPECT_FALSE(hasAncestorProcessNamed("no-such-process-name"));
  EXPECT_FALSE(hasAncestorProcessNamed("buildenv_test"));  // exact comparison, not a prefix
}

}  // namespace
}  // namespace symlift::buildenv
