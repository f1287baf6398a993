#pragma once
// Punycode (RFC 3492) as the Swift mangling uses it for identifiers with
// non-ASCII characters: '_' is the delimiter and 'A'-'J' stand for the
// digits 26-35.

#include <string>
#include <string_view>

namespace symlift::demangle::swift {

// Appends the UTF-8 text of encoded to out; false when it is not valid.
bool decodePunycode(std::string_view encoded, std::string& out);

}  // namespace symlift::demangle::swift
