#include "records/record_upload.h"

#include "cli/console_log.h"
#include "records/upload_recorder.h"

namespace symlift::buildenv {

void recordUpload(const std::shared_ptr<records::SUPDSYMUploadRecorder>& recorder,
                  const std::shared_ptr<macho::SUPMachOBinary>& executable, bool isCI) {
  cli::SYLLogDebug("dSYM upload complete");
  if (isCI || !recorder) return;
  recorder->recordSuccessfulUploadBinary(executable);
}

}  // namespace symlift::buildenv
