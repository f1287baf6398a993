#pragma once
// Captures what is written to a file descriptor (standard output or error),
// whether through stdio or write(2).

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

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

}  // namespace symlift::testing
