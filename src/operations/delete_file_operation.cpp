#include "operations/delete_file_operation.h"

#include <filesystem>
#include <system_error>

#include "console/console_log.h"
#include "support/cleanup_registry.h"

namespace symlift::operations {

using console::SYLLogDebug;
using console::SYLLogWarning;

void SUPDeleteFileOperation::deleteFile() {
  SYLLogDebug("Deleting file at path: {}", console::printable(path_));
  std::error_code error;
  // A dangling symbolic link is still something to remove.
  if (!std::filesystem::exists(std::filesystem::symlink_status(path_, error))) {
    SYLLogWarning("File to delete does not exist at path: {}", console::printable(path_));
    return;
  }
  std::filesystem::remove_all(path_, error);
  if (!error) {
    cleanup_.remove(path_);
    SYLLogDebug("Deleted file at path {}", console::printable(path_));
  } else {
    SYLLogWarning("Unable to remove file at {} due to error {}", console::printable(path_), error.message());
  }
}

}  // namespace symlift::operations
