#include "buildenv/process_ancestry.h"

#include <charconv>

#include "support/property_list.h"
#include "support/files.h"

namespace symlift::buildenv {

namespace {

constexpr int kReadAttempts = 5;
// Far more than any real process tree is deep; guards against a cycle in
// what the reader reports.
constexpr std::size_t kMaximumDepth = 4096;

}  // namespace

std::optional<ProcessStatus> parseProcessStat(std::string_view text) {
  std::size_t open = text.find('(');
  std::size_t close = text.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return std::nullopt;
  ProcessStatus status;
  status.commandName = std::string(text.substr(open + 1, close - open - 1));
  // After the name: " <state> <ppid> ..."
  std::string_view rest = text.substr(close + 1);
  std::size_t state = rest.find_first_not_of(' ');
  if (state == std::string_view::npos) return std::nullopt;
  std::size_t afterState = rest.find(' ', state);
  if (afterState == std::string_view::npos) return std::nullopt;
  std::size_t number = rest.find_first_not_of(' ', afterState);
  if (number == std::string_view::npos) return std::nullopt;
  const char* first = rest.data() + number;
  const char* last = rest.data() + rest.size();
  auto [end, error] = std::from_chars(first, last, status.parentID);
  if (error != std::errc() || end == first) return std::nullopt;
  return status;
}

std::optional<ProcessStatus> readProcessStatus(long pid) {
  auto text = support::readWholeFile("/proc/" + std::to_string(pid) + "/stat");
  if (!text) return std::nullopt;
  return parseProcessStat(*text);
}

std::vector<std::string> ancestorProcessNames(long pid,
                                              const std::function<std::optional<ProcessStatus>(long)>& readStatus) {
  std::vector<std::string> names;
  while (names.size() < kMaximumDepth) {
    std::optional<ProcessStatus> status;
    for (int attempt = 0; attempt < kReadAttempts && !status; ++attempt) status = readStatus(pid);
    if (!status) break;
    names.push_back(status->commandName);
    if (pid < 2) break;
    pid = status->parentID;
  }
  return names;
}

}  // namespace symlift::buildenv
