#pragma once
// What the driver decides for a run and hands to path expansion, which copies
// it into every dSYM's code-mapping container.

#include <string>

namespace symlift::cli {

struct SYLUploadSettings {
  std::string appID;
  std::string platform;
  bool convertOnly = false;
  bool isCI = false;
  float maxSymbolicationVersion = 0.0f;
};

}  // namespace symlift::cli
