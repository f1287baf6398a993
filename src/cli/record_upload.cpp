#include "cli/record_upload.h"

#include "console/console_log.h"
#include "records/upload_recorder.h"

namespace symlift::cli {

void recordUpload(const std::shared_ptr<records::SUPDSYMUploadRecorder>& recorder,
                  const std::shared_ptr<macho::SUPMachOBinary>& executable, bool isCI) {
  console::SYLLogDebug("dSYM upload complete");
  if (isCI || !recorder) return;
  recorder->recordSuccessfulUploadBinary(executable);
}

}  // namespace symlift::cli
