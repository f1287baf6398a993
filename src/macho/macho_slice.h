#pragma once
// One architecture slice of a Mach-O file: its UUID, architecture name,
// linked dylibs and version-minimum values, copied out of the mapping while
// the slice is built.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "macho/macho_file.h"

namespace symlift::macho {

class SUPMachOSlice {
 public:
  // Reads the slice's load commands; the record's CPU type and subtype are
  // replaced by those of the slice's own header. The mapping is only read
  // here: afterwards the slice holds copies, and the record's startAddress
  // must not be dereferenced once the binary that owns the mapping is gone.
  explicit SUPMachOSlice(const SUPMachOSliceRecord& slice);

  // Nothing when given no record.
  static std::shared_ptr<SUPMachOSlice> initWithSlice(const SUPMachOSliceRecord* slice);
  // The running process's own slice. This platform cannot find the running
  // image, so the slice has no UUID and is named "unknown".
  static std::shared_ptr<SUPMachOSlice> runningSlice();

  // 32 lower-case hexadecimal digits; nothing when there is no UUID command.
  const std::optional<std::string>& uuid() const { return uuidString_; }
  std::string architectureName() const;
  // Install names of the plain load-dylib commands, in command order.
  const std::vector<std::string>& linkedDylibs() const { return linkedDylibs_; }
  // 0.0.0 unless a version-minimum command is present; the build-version
  // command is deliberately not read.
  SUPMachOVersion minimumOSVersion() const { return minimumOSVersion_; }
  SUPMachOVersion linkedSDKVersion() const { return linkedSDKVersion_; }

  std::int32_t cputype() const { return slice_.cputype; }
  std::int32_t cpusubtype() const { return slice_.cpusubtype; }
  const SUPMachOSliceRecord& record() const { return slice_; }

 private:
  SUPMachOSliceRecord slice_;
  std::optional<std::string> uuidString_;
  std::vector<std::string> linkedDylibs_;
  SUPMachOVersion minimumOSVersion_;
  SUPMachOVersion linkedSDKVersion_;
};

}  // namespace symlift::macho
