#pragma once
// The console log: every line the user sees goes through SYLLogging to
// standard output, with a level prefix and, when colour is on, ANSI colours.
// The helpers take {fmt} format strings.

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include <fmt/format.h>

namespace symlift::console {

inline constexpr std::uint64_t kLogLevelDebug = 0;
inline constexpr std::uint64_t kLogLevelInfo = 1;
inline constexpr std::uint64_t kLogLevelWarning = 2;
inline constexpr std::uint64_t kLogLevelError = 3;

inline constexpr std::string_view kColorReset = "\x1b[0m";
inline constexpr std::string_view kColorBold = "\x1b[1m";
inline constexpr std::string_view kColorBoldCyan = "\x1b[1m\x1b[36m";
inline constexpr std::string_view kColorRed = "\x1b[31m";
inline constexpr std::string_view kColorYellow = "\x1b[33m";
inline constexpr std::string_view kColorGreen = "\x1b[32m";

// Hears every line the log writes (the run report keeps the warnings, the
// progress line on a terminal steps aside for them). Both calls come under
// the log's lock, so a listener must not log.
class LogListener {
 public:
  virtual ~LogListener() = default;
  virtual void willWriteLine() {}
  virtual void didWriteLine(std::uint64_t /*level*/, std::string_view /*message*/) {}
};

// Text from outside (a path, an archive's entry name, a symbol name) as it
// may appear in a line: control characters (line feeds included) are written
// as escapes ("\n", "\r", "\t", "\x1b"), so that no name can start a line of
// its own or drive the terminal. Ordinary text comes back unchanged.
std::string printable(std::string_view text);

class SYLLogging {
 public:
  // The one process-wide instance (level 1, colour on at creation).
  static SYLLogging& sharedInstance();

  // The only operation that prints.
  static void logWithLogLevel(std::uint64_t level, std::string_view message, std::string_view color);
  static void logWithLogLevel(std::uint64_t level, std::string_view message);
  // Prints one more line and closes the log for good: any later line waits
  // forever. For a process about to end, so that nothing said by threads
  // still running can follow its last word.
  static void logLastLineAndClose(std::uint64_t level, std::string_view message, std::string_view color);

  // Logs the formatted message as an uncoloured error and, when an underlying
  // error is given, "Underlying error: <description>" through SYLLogError.
  // Prefix, domain and code are accepted and unused; no error is produced.
  // The error is anything pointer-like with a description() (the error
  // value of the layers above).
  template <typename ErrorPointer, typename... Args>
  static void logErrorWithPrefix(std::string_view /*prefix*/, std::string_view /*domain*/, std::int64_t /*code*/,
                                 const ErrorPointer& underlyingError, fmt::format_string<Args...> format,
                                 Args&&... args) {
    logWithLogLevel(kLogLevelError, fmt::format(format, std::forward<Args>(args)...));
    if constexpr (!std::is_null_pointer_v<ErrorPointer>) {
      if (underlyingError)
        logWithLogLevel(kLogLevelError, "Underlying error: " + underlyingError->description(), kColorRed);
    }
  }

  std::uint64_t logLevel() const { return logLevel_.load(std::memory_order_relaxed); }
  void setLogLevel(std::uint64_t level) { logLevel_.store(level, std::memory_order_relaxed); }
  bool colorsEnabled() const { return colorsEnabled_.load(std::memory_order_relaxed); }
  void setColorsEnabled(bool enabled) { colorsEnabled_.store(enabled, std::memory_order_relaxed); }

  // Listeners are added for the length of a run; one removed is not called
  // again once this returns.
  static void addListener(LogListener* listener);
  static void removeListener(LogListener* listener);

  // The line that logWithLogLevel writes for these inputs (no level test).
  static std::string formatLine(std::uint64_t level, std::string_view message, std::string_view color,
                                bool colorsEnabled);

 private:
  SYLLogging() = default;
  std::atomic<std::uint64_t> logLevel_{kLogLevelInfo};
  std::atomic<bool> colorsEnabled_{true};
};

template <typename... Args>
void SYLLogSuccess(fmt::format_string<Args...> format, Args&&... args) {
  SYLLogging::logWithLogLevel(kLogLevelInfo, fmt::format(format, std::forward<Args>(args)...), kColorGreen);
}
template <typename... Args>
void SYLLogHighlight(fmt::format_string<Args...> format, Args&&... args) {
  SYLLogging::logWithLogLevel(kLogLevelInfo, fmt::format(format, std::forward<Args>(args)...), kColorBoldCyan);
}
template <typename... Args>
void SYLLogBold(fmt::format_string<Args...> format, Args&&... args) {
  SYLLogging::logWithLogLevel(kLogLevelInfo, fmt::format(format, std::forward<Args>(args)...), kColorBold);
}
template <typename... Args>
void SYLLogInfo(fmt::format_string<Args...> format, Args&&... args) {
  SYLLogging::logWithLogLevel(kLogLevelInfo, fmt::format(format, std::forward<Args>(args)...), "");
}
// Formats, then logs only while the shared level is exactly 0.
template <typename... Args>
void SYLLogDebug(fmt::format_string<Args...> format, Args&&... args) {
  std::string message = fmt::format(format, std::forward<Args>(args)...);
  if (SYLLogging::sharedInstance().logLevel() == kLogLevelDebug)
    SYLLogging::logWithLogLevel(kLogLevelDebug, message, "");
}
template <typename... Args>
void SYLLogWarning(fmt::format_string<Args...> format, Args&&... args) {
  SYLLogging::logWithLogLevel(kLogLevelWarning, fmt::format(format, std::forward<Args>(args)...), kColorYellow);
}
template <typename... Args>
void SYLLogError(fmt::format_string<Args...> format, Args&&... args) {
  SYLLogging::logWithLogLevel(kLogLevelError, fmt::format(format, std::forward<Args>(args)...), kColorRed);
}

}  // namespace symlift::console
