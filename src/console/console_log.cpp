#include "console/console_log.h"

#include <cstdio>
#include <mutex>

namespace symlift::console {

namespace {
// Serialises the building and writing of lines, so that lines from the
// pipeline's threads never interleave within a line.
std::mutex& classLock() {
  static std::mutex lock;
  return lock;
}
}  // namespace

SYLLogging& SYLLogging::sharedInstance() {
  static SYLLogging instance;  // thread-safe one-time initialisation
  return instance;
}

std::string SYLLogging::formatLine(std::uint64_t level, std::string_view message, std::string_view color,
                                   bool colorsEnabled) {
  std::string_view prefix = level == kLogLevelWarning ? "warning: " : level == kLogLevelError ? "error: " : "";
  if (colorsEnabled && !color.empty())
    return fmt::format("{}{}{}{}\n", color, prefix, message, kColorReset);
  return fmt::format("{}{}\n", prefix, message);
}

void SYLLogging::logWithLogLevel(std::uint64_t level, std::string_view message, std::string_view color) {
  SYLLogging& shared = sharedInstance();
  if (level < shared.logLevel()) return;
  std::lock_guard<std::mutex> guard(classLock());
  std::string line = formatLine(level, message, color, shared.colorsEnabled());
  std::fwrite(line.data(), 1, line.size(), stdout);
}

void SYLLogging::logLastLineAndClose(std::uint64_t level, std::string_view message, std::string_view color) {
  classLock().lock();  // deliberately never released
  SYLLogging& shared = sharedInstance();
  if (level < shared.logLevel()) return;
  std::string line = formatLine(level, message, color, shared.colorsEnabled());
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

void SYLLogging::logWithLogLevel(std::uint64_t level, std::string_view message) {
  logWithLogLevel(level, message, "");
}


}  // namespace symlift::console
