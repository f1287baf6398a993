// Arbitrary bytes through the Mach-O reader: the fat header walk, every
// slice's load commands (both the platform's view and the symbol reader's
// images are read) and everything a slice exposes.

#include <cstddef>
#include <cstdint>
#include <string>

#include "macho/macho_binary.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using symlift::macho::SUPMachOBinary;
  // Binaries refuse files under 16 bytes; the in-memory entry point is given
  // everything so that the short-input checks are exercised.
  auto slices = SUPMachOBinary::slicesOfImage(data, size);
  std::size_t total = 0;
  for (const auto& slice : slices) {
    total += slice->architectureName().size();
    if (slice->uuid()) total += slice->uuid()->size();
    for (const std::string& dylib : slice->linkedDylibs()) total += dylib.size();
    total += slice->minimumOSVersion().major + slice->linkedSDKVersion().minor;
  }
  // Keep the results observable so that nothing is optimised away.
  volatile std::size_t sink = total;
  (void)sink;
  return 0;
}
