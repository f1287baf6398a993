#pragma once
// Two small platform services the symbol side needs: a line in the system log
// and the per-user temporary directory.

#include <string>
#include <string_view>

namespace symlift::symbols::detail {

// Writes "<date time> symlift[<pid>]: <message>\n" to standard error, the way
// the platform's system log call reports from a command-line tool.
void systemLog(std::string_view message);

// $TMPDIR when set and not empty, else /tmp; without a trailing slash.
std::string temporaryDirectory();

}  // namespace symlift::symbols::detail
