#pragma once
// The tool's own information dictionary (an Info.plist compiled into the
// binary): version strings and optional endpoint keys.

#include <optional>
#include <string>

namespace symlift::support {

// The string value of a key of the embedded Info.plist, or nothing.
std::optional<std::string> infoDictionaryString(const char* key);

}  // namespace symlift::support
