#pragma once
// The standard library types, builtin types and value witnesses that the
// mangling names by a letter or two instead of spelling them out.

#include <string_view>

#include "demangle/swift/node.h"

namespace symlift::demangle::swift {

// The nominal type for 'S' <c> (or 'Sc' <c> when secondSet), or kNoNode.
NodeId knownType(NodeArena& arena, char c, bool secondSet);
// "Builtin.NativeObject" for 'Bo' (c = 'o'); empty when unknown.
std::string_view builtinTypeName(char c);
// "destroy" for "xx"; empty when unknown.
std::string_view valueWitnessName(std::string_view code);

}  // namespace symlift::demangle::swift
