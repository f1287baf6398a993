#pragma once
// A system-log style line on standard error: time stamp, process name and id,
// then the message. For the few messages that deliberately bypass the console
// log (they are diagnostics for whoever reads the system log, not the user).

#include <string_view>

namespace symlift::support {

// Writes "<yyyy-mm-dd hh:mm:ss.mmm> <process>[<pid>] <message>\n" to
// standard error in one write.
void systemLog(std::string_view message);

}  // namespace symlift::support
