#pragma once
// One architecture slice of a Mach-O file as the platform reports it: its
// UUID, architecture name, linked dylibs and version minimums. A view over
// what the file's one walk read; it keeps those facts alive on its own, so a
// slice may outlive the binary it came from.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "macho/macho_file.h"

namespace symlift::macho {

class SUPMachOSlice {
 public:
  explicit SUPMachOSlice(std::shared_ptr<const MachOSliceFacts> facts) : facts_(std::move(facts)) {}

  // 32 lower-case hexadecimal digits; nothing when there is no UUID command.
  const std::optional<std::string>& uuid() const { return facts_->uuid; }
  // See sliceArchitectureName.
  std::string architectureName() const;
  const std::vector<std::string>& linkedDylibs() const { return facts_->linkedDylibs; }
  // 0.0.0 unless a version-minimum command is present.
  SUPMachOVersion minimumOSVersion() const { return facts_->minimumOSVersion; }
  SUPMachOVersion linkedSDKVersion() const { return facts_->linkedSDKVersion; }
  std::int32_t cputype() const { return facts_->cputype; }
  std::int32_t cpusubtype() const { return facts_->cpusubtype; }

 private:
  std::shared_ptr<const MachOSliceFacts> facts_;
};

}  // namespace symlift::macho
