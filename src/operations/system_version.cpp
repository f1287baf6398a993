#include "operations/system_version.h"

namespace symlift::operations {

// The conversion once needed the symbolication services of macOS 10.10 or
// later. Here the symbols are read by our own DWARF reader, which needs
// nothing of the kernel or the system's release, so the kernel version
// would say nothing about it. What is reported is the version the reader
// stands in for: the oldest one that passes the check.
SystemVersion operatingSystemVersion() { return SystemVersion{10, 10, 0}; }

bool isSupportedSystemVersion(const SystemVersion& version) {
  if (version.majorVersion > 10) return true;
  return version.majorVersion == 10 && version.minorVersion >= 10;
}

}  // namespace symlift::operations
