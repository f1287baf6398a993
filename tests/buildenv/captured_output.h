#pragma once
// Captures what is written to standard output or standard error (the file
// descriptor, so writes through stdio and write(2) are both seen).

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "support/test_support.h"

namespace symlift::testing {

class CapturedOutput {
 public:
  explicit CapturedOutput(int fd) : fd_(fd) {
    std::fflush(nullptr);
    path_ = (directory_.path() / "captured").string();
    int file = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    saved_ = ::dup(fd_);
    ::dup2(file, fd_);
    ::close(file);
  }
  ~CapturedOutput() { restore(); }
  CapturedOutput(const CapturedOutput&) = delete;
  CapturedOutput& operator=(const CapturedOutput&) = delete;

  // Stops capturing and returns everything written meanwhile.
  std::string take() {
    restore();
    return readFile(path_);
  }

 private:
  void restore() {
    if (saved_ < 0) return;
    std::fflush(nullptr);
    ::dup2(saved_, fd_);
    ::close(saved_);
    saved_ = -1;
  }

  int fd_;
  int saved_ = -1;
  TempDir directory_;
  std::string path_;
};

}  // namespace symlift::testing
