#include "symbols/platform_fallbacks.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace symlift::symbols::detail {

void systemLog(std::string_view message) {
  char stamp[32] = "";
  std::time_t now = std::time(nullptr);
  std::tm local{};
  if (localtime_r(&now, &local)) std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  // One write per line so that concurrent writers do not interleave within it.
  std::string line;
  line.reserve(message.size() + 64);
  line.append(stamp).append(" symlift[").append(std::to_string(getpid())).append("]: ");
  line.append(message).push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

std::string temporaryDirectory() {
  const char* value = std::getenv("TMPDIR");
  std::string directory = (value && *value) ? value : "/tmp";
  while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
  return directory;
}

}  // namespace symlift::symbols::detail
