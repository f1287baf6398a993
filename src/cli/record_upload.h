#pragma once
// The build phase's last step after a successful upload: remember the built
// executable so the next build of the same executable is not uploaded again.
// It belongs with the build-environment functions but lives here, beside the
// recorder it calls, so the build environment does not depend on the store.

#include <memory>

namespace symlift::macho {
class SUPMachOBinary;
}
namespace symlift::records {
class SUPDSYMUploadRecorder;
}

namespace symlift::cli {

// Logs "dSYM upload complete" (debug) and, unless the run is on a CI
// machine, records the executable; the recording's outcome is not reported.
void recordUpload(const std::shared_ptr<records::SUPDSYMUploadRecorder>& recorder,
                  const std::shared_ptr<macho::SUPMachOBinary>& executable, bool isCI);

}  // namespace symlift::cli
