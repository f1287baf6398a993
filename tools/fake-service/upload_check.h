#pragma once
// What the stand-in service checks of an uploaded body: a complete gzip
// stream whose first line is a cSYM header naming the UUID of the URL.

#include <string>
#include <string_view>

namespace symlift::fakeservice {

struct UploadVerdict {
  bool accepted = false;
  std::string reason;  // why it was refused
};

UploadVerdict checkUpload(std::string_view body, std::string_view uuid);

}  // namespace symlift::fakeservice
