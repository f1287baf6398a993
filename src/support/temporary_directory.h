#pragma once
// The user's temporary directory.

#include <string>

namespace symlift::support {

// $TMPDIR when it is set and not empty, otherwise "/tmp". Trailing slashes
// are removed (a bare "/" stays as it is).
std::string temporaryDirectory();

}  // namespace symlift::support
