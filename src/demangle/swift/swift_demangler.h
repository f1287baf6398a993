#pragma once
// Swift symbol names (Mach-O symbol table and DWARF linkage names) turned
// back into readable text. Covers the current mangling ($s, $S, _T0, $e)
// and the common part of the Swift 3 one (_T); anything it cannot read
// completely is left alone rather than guessed.

#include <optional>
#include <string>
#include <string_view>

namespace symlift::demangle::swift {

enum class Form {
  // As crash reports show Swift frames: no module names, argument labels
  // but no types ("ViewController.viewDidLoad()", "closure #1 in ...").
  Simplified,
  // As Swift's own swift-demangle prints it, with modules and types.
  Full,
};

// The demangled text of a Swift symbol name, or nothing when the name is
// not a Swift mangled name, cannot be read completely (never a partial or
// guessed name), or exceeds the depth and size limits. Accepts the name with
// the Mach-O extra leading underscore ("_$s…", "__T0…") or without.
std::optional<std::string> demangle(std::string_view mangled, Form form = Form::Simplified);

// Whether the name starts like a Swift mangled name; cheap, no demangling.
bool isSwiftMangledName(std::string_view name);

}  // namespace symlift::demangle::swift
