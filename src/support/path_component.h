#pragma once
// Joining path components the way the platform's path-string API does.

#include <string>

namespace symlift::support {

// base + "/" + component with no doubled slash: an empty base gives the
// component, an empty component gives the base, "a/" + "b" gives "a/b".
std::string appendingPathComponent(const std::string& base, const std::string& component);

}  // namespace symlift::support
