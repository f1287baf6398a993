#pragma once
// Display names of Mach-O symbol names: Itanium C++ names through LLVM's
// demangler, Swift names through our own (in the form crash reports show),
// Objective-C method names as they are, everything else without the Mach-O
// leading underscore.

#include <optional>
#include <string>
#include <string_view>

namespace symlift::demangle {

// The demangled text when the name is an Itanium C++ name that demangles
// (one Mach-O underscore removed first), else nothing.
std::optional<std::string> demangleItanium(std::string_view machOName);

// The demangled text, as crash reports show Swift frames, when the name is
// a Swift name that demangles completely, else nothing.
std::optional<std::string> demangleSwift(std::string_view machOName);

// The demangled text of a C++ or Swift name, else nothing.
std::optional<std::string> demangled(std::string_view machOName);

// The display name without demangling: Objective-C methods ("-[C s]",
// "+[C s]") as they are, other names with one leading underscore removed.
std::string_view plainDisplayName(std::string_view machOName);

}  // namespace symlift::demangle
