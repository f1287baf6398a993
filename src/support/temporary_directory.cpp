#include "support/temporary_directory.h"

#include <cstdlib>

namespace symlift::support {

std::string temporaryDirectory() {
  const char* value = std::getenv("TMPDIR");
  std::string directory = (value && *value) ? value : "/tmp";
  while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
  return directory;
}

}  // namespace symlift::support
