#pragma once
// Removes one file or folder (with its contents). A problem is only a
// warning: removing temporary files never fails the work they served.

#include <string>

#include "dispatch/operation.h"
#include "support/cleanup_registry.h"

namespace symlift::operations {

class SUPDeleteFileOperation : public dispatch::Operation {
 public:
  // A path removed is forgotten by the registry.
  SUPDeleteFileOperation(std::string path, support::CleanupRegistry& cleanup)
      : path_(std::move(path)), cleanup_(cleanup) {}
  static std::shared_ptr<SUPDeleteFileOperation> initWithPath(const std::string& path,
                                                              support::CleanupRegistry& cleanup) {
    return std::make_shared<SUPDeleteFileOperation>(path, cleanup);
  }

  void main() override { deleteFile(); }
  void deleteFile();
  const std::string& path() const { return path_; }

 private:
  const std::string path_;
  support::CleanupRegistry& cleanup_;
};

}  // namespace symlift::operations
