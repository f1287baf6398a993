#include "support/system_log.h"

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <string>

#include <fmt/format.h>

namespace symlift::support {

namespace {

const char* processName() {
#if defined(__GLIBC__)
  return program_invocation_short_name;
#elif defined(__APPLE__) || defined(__FreeBSD__)
  return getprogname();
#else
  return "symlift";
#endif
}

}  // namespace

void systemLog(std::string_view message) {
  timeval now{};
  gettimeofday(&now, nullptr);
  std::tm local{};
  time_t seconds = now.tv_sec;
  localtime_r(&seconds, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  std::string line = fmt::format("{}.{:03d} {}[{}] {}\n", stamp, static_cast<int>(now.tv_usec / 1000),
                                 processName(), static_cast<long>(getpid()), message);
  // One write(2) so that lines from several threads never interleave.
  const char* data = line.data();
  std::size_t left = line.size();
  while (left > 0) {
    ssize_t written = ::write(STDERR_FILENO, data, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      return;
    }
    data += written;
    left -= static_cast<std::size_t>(written);
  }
}

}  // namespace symlift::support
