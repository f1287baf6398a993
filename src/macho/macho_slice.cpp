#include "macho/macho_slice.h"

#include <cstring>

namespace symlift::macho {

namespace {

std::uint32_t readHost32(const std::uint8_t* p) {
  std::uint32_t value;
  std::memcpy(&value, p, sizeof value);
  return value;
}

bool isVersionMinimum(std::uint32_t type) {
  return type == kLoadCommandVersionMinMacOSX || type == kLoadCommandVersionMinIPhoneOS ||
         type == kLoadCommandVersionMinTvOS || type == kLoadCommandVersionMinWatchOS;
}

}  // namespace

SUPMachOSlice::SUPMachOSlice(const SUPMachOSliceRecord& slice) : slice_(slice) {
  // The walk guarantees that size bytes are readable at command; each field
  // read below is checked against that size.
  SUPMachOSliceEnumerateLoadCommands(
      &slice_, [this](std::uint32_t type, std::uint32_t size, const std::uint8_t* command) {
        if (isVersionMinimum(type)) {
          if (size < 16) return;
          minimumOSVersion_ = SUPMachOVersionDecode(readHost32(command + 8));
          linkedSDKVersion_ = SUPMachOVersionDecode(readHost32(command + 12));
        } else if (type == kLoadCommandLoadDylib) {
          if (size < 12) return;
          std::uint32_t nameOffset = readHost32(command + 8);
          if (nameOffset >= size) return;
          const char* name = reinterpret_cast<const char*>(command + nameOffset);
          // An install name without its NUL ends at the command's end.
          linkedDylibs_.emplace_back(name, ::strnlen(name, size - nameOffset));
        } else if (type == kLoadCommandUUID) {
          if (size < 24) return;
          uuidString_ = SUPMachOUUIDString(command + 8);
        }
      });
}

std::shared_ptr<SUPMachOSlice> SUPMachOSlice::initWithSlice(const SUPMachOSliceRecord* slice) {
  if (slice == nullptr) return nullptr;
  return std::make_shared<SUPMachOSlice>(*slice);
}

std::shared_ptr<SUPMachOSlice> SUPMachOSlice::runningSlice() {
  SUPMachOSliceRecord current = SUPMachOSliceGetCurrent();
  return initWithSlice(&current);
}

std::string SUPMachOSlice::architectureName() const { return SUPMachOSliceArchitectureName(&slice_); }

}  // namespace symlift::macho
