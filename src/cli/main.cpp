#include <unistd.h>

#include <cstdio>

#include "cli/driver.h"

int main(int argc, char** argv) {
  const int status = symlift::cli::runMain(argc, argv);
  // Everything the run owes the user is done and written. Pipeline threads
  // may still be finishing their own bookkeeping; the process ends without
  // tearing down the thread pool under them (doing so can wait forever on a
  // thread whose turn on a queue never comes once the pool is stopping).
  std::fflush(stdout);
  std::fflush(stderr);
  ::_exit(status);
}
