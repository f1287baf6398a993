#pragma once
// Whether this system can turn dSYMs into cSYMs.

namespace symlift::operations {

struct SystemVersion {
  long majorVersion = 0;
  long minorVersion = 0;
  long patchVersion = 0;
};

// The version the symbol reader is measured against (see the definition).
SystemVersion operatingSystemVersion();

// 10.10 or later: any major above 10, or 10 with a minor of at least 10.
bool isSupportedSystemVersion(const SystemVersion& version);

}  // namespace symlift::operations
