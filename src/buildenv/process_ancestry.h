#pragma once
// The names of this process and its ancestors, read from the kernel's
// per-process status (/proc/<pid>/stat).

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace symlift::buildenv {

struct ProcessStatus {
  std::string commandName;  // the kernel's short name, at most 15 bytes on Linux
  long parentID = 0;
};

// Parses "<pid> (<comm>) <state> <ppid> ...". The command name is what lies
// between the first "(" and the LAST ")", so names holding parentheses or
// blanks parse correctly. Nothing when the text is malformed.
std::optional<ProcessStatus> parseProcessStat(std::string_view text);

// Reads /proc/<pid>/stat; nothing when it cannot be read or parsed.
std::optional<ProcessStatus> readProcessStatus(long pid);

// The command names of pid and its ancestors, nearest first. Stops after a
// process whose id is below 2 has been added, and gives up (taking it as the
// end of the chain) after 5 failed reads of one process.
std::vector<std::string> ancestorProcessNames(long pid,
                                              const std::function<std::optional<ProcessStatus>(long)>& readStatus);

}  // namespace symlift::buildenv
