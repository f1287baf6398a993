#include "console/console_log.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <mutex>
#include <vector>

namespace symlift::console {

namespace {
// Serialises the building and writing of lines, so that lines from the
// pipeline's threads never interleave within a line.
std::mutex& classLock() {
  static std::mutex lock;
  return lock;
}

std::vector<LogListener*>& listeners() {
  static std::vector<LogListener*> list;  // guarded by classLock()
  return list;
}

// Writes a whole line and hands it on at once, so that a log read through a
// pipe shows each line when it happens. A reader that has gone away makes
// the process end as a pipe's signal would, through the process's own
// handling of it (the signal itself is blocked in every thread).
void writeLine(const std::string& line) {
  errno = 0;
  const bool written = std::fwrite(line.data(), 1, line.size(), stdout) == line.size();
  const bool flushed = std::fflush(stdout) == 0;
  if ((!written || !flushed) && errno == EPIPE) ::kill(::getpid(), SIGPIPE);
}

}  // namespace

namespace {

bool isControl(unsigned char c) { return c < 0x20 || c == 0x7f; }

void appendEscape(std::string& out, unsigned char c) {
  switch (c) {
    case '\n': out += "\\n"; break;
    case '\r': out += "\\r"; break;
    case '\t': out += "\\t"; break;
    default: out += fmt::format("\\x{:02x}", c);
  }
}

// The message with its control characters escaped, but for the line feeds
// and tabs of the program's own multi-line texts.
std::string withoutTerminalControls(std::string_view message) {
  std::string out;
  out.reserve(message.size());
  for (unsigned char c : message) {
    if (isControl(c) && c != '\n' && c != '\t')
      appendEscape(out, c);
    else
      out.push_back(static_cast<char>(c));
  }
  return out;
}

}  // namespace

std::string printable(std::string_view text) {
  if (std::none_of(text.begin(), text.end(), [](unsigned char c) { return isControl(c); })) return std::string(text);
  std::string out;
  for (unsigned char c : text) {
    if (isControl(c))
      appendEscape(out, c);
    else
      out.push_back(static_cast<char>(c));
  }
  return out;
}

SYLLogging& SYLLogging::sharedInstance() {
  static SYLLogging instance;  // thread-safe one-time initialisation
  return instance;
}

std::string SYLLogging::formatLine(std::uint64_t level, std::string_view message, std::string_view color,
                                   bool colorsEnabled) {
  std::string_view prefix = level == kLogLevelWarning ? "warning: " : level == kLogLevelError ? "error: " : "";
  const std::string text = withoutTerminalControls(message);
  if (colorsEnabled && !color.empty())
    return fmt::format("{}{}{}{}\n", color, prefix, text, kColorReset);
  return fmt::format("{}{}\n", prefix, text);
}

void SYLLogging::logWithLogLevel(std::uint64_t level, std::string_view message, std::string_view color) {
  SYLLogging& shared = sharedInstance();
  if (level < shared.logLevel()) return;
  std::lock_guard<std::mutex> guard(classLock());
  for (LogListener* listener : listeners()) listener->willWriteLine();
  writeLine(formatLine(level, message, color, shared.colorsEnabled()));
  for (LogListener* listener : listeners()) listener->didWriteLine(level, message);
}

void SYLLogging::addListener(LogListener* listener) {
  std::lock_guard<std::mutex> guard(classLock());
  listeners().push_back(listener);
}

void SYLLogging::removeListener(LogListener* listener) {
  std::lock_guard<std::mutex> guard(classLock());
  std::erase(listeners(), listener);
}

void SYLLogging::logLastLineAndClose(std::uint64_t level, std::string_view message, std::string_view color) {
  classLock().lock();  // deliberately never released
  SYLLogging& shared = sharedInstance();
  if (level < shared.logLevel()) return;
  for (LogListener* listener : listeners()) listener->willWriteLine();
  writeLine(formatLine(level, message, color, shared.colorsEnabled()));
  for (LogListener* listener : listeners()) listener->didWriteLine(level, message);
}

void SYLLogging::logWithLogLevel(std::uint64_t level, std::string_view message) {
  logWithLogLevel(level, message, "");
}


}  // namespace symlift::console
