#include "cli/driver.h"

#include "cli/console_log.h"

namespace symlift::cli {

int runMain(int, char**) {
  SYLLogError("processing is not available in this build");
  return 8;
}

}  // namespace symlift::cli
