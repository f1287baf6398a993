#pragma once
// SUPStrings: unique temporary names and the MD5 digest text.

#include <string>

namespace symlift::support {

class SUPStrings {
 public:
  // A fresh random (version 4) UUID text on every call, upper-case hex with
  // dashes: "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
  static std::string uniqueString();
  // The temporary directory joined with uniqueString() + ".zip".
  static std::string uniqueZipFilePath();
  // uniqueString() + "/gz": a path component, not an extension.
  static std::string uniqueGZipFileName();
  // MD5 of the string's bytes as 32 lower-case hexadecimal digits.
  static std::string MD5HashForString(const std::string& string);
};

}  // namespace symlift::support
