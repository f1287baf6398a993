#pragma once
// Removes one file or folder (with its contents). A problem is only a
// warning: removing temporary files never fails the work they served.

#include <string>

#include "dispatch/operation.h"

namespace symlift::operations {

class SUPDeleteFileOperation : public dispatch::Operation {
 public:
  explicit SUPDeleteFileOperation(std::string path) : path_(std::move(path)) {}
  static std::shared_ptr<SUPDeleteFileOperation> initWithPath(const std::string& path) {
    return std::make_shared<SUPDeleteFileOperation>(path);
  }

  void main() override { deleteFile(); }
  void deleteFile();
  const std::string& path() const { return path_; }

 private:
  const std::string path_;
};

}  // namespace symlift::operations
