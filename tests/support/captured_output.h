#pragma once
// Captures what is written to a file descriptor (standard output or error),
// whether through stdio or write(2), and the console's output at a level.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "console/console_log.h"
#include "support/test_support.h"

namespace symlift::testing {

class CapturedOutput {
 public:
  explicit CapturedOutput(int fd) : fd_(fd), path_((dir_.path() / "captured").string()) {
    std::fflush(nullptr);
    int file = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    saved_ = ::dup(fd_);
    ::dup2(file, fd_);
    ::close(file);
  }
  ~CapturedOutput() { take(); }

  // Stops capturing (once) and returns everything written meanwhile.
  std::string take() {
    if (saved_ >= 0) {
      std::fflush(nullptr);
      ::dup2(saved_, fd_);
      ::close(saved_);
      saved_ = -1;
    }
    return readFile(path_);
  }

 private:
  int fd_;
  int saved_ = -1;
  TempDir dir_;
  std::string path_;
};

// Standard output of body, with the console at level and colour off (or on);
// the console's settings are restored afterwards.
template <typename Body>
std::string consoleOutput(std::uint64_t level, Body&& body, bool colours = false) {
  auto& log = console::SYLLogging::sharedInstance();
  auto savedLevel = log.logLevel();
  auto savedColors = log.colorsEnabled();
  log.setLogLevel(level);
  log.setColorsEnabled(colours);
  CapturedOutput out(STDOUT_FILENO);
  body();
  std::string text = out.take();
  log.setLogLevel(savedLevel);
  log.setColorsEnabled(savedColors);
  return text;
}

}  // namespace symlift::testing
