#pragma once
// Reads the Swift 3 mangling (_T without 0) into the same nodes as the
// current one. Unlike the current mangling it is prefix-ordered, so the
// reader is recursive descent.

#include <string_view>
#include <vector>

#include "demangle/swift/cursor.h"
#include "demangle/swift/node.h"

namespace symlift::demangle::swift {

class OldParser {
 public:
  OldParser(NodeArena& arena, std::string_view body);
  // A Global node, or kNoNode when the name cannot be read completely.
  NodeId parse();

 private:
  NodeId global();
  NodeId entity();
  NodeId context();
  NodeId module();
  NodeId nominal(NodeKind kind);
  NodeId declName();
  NodeId identifier();
  NodeId type();
  NodeId functionType(unsigned convention);
  NodeId tuple(bool variadic);
  NodeId substitution();
  NodeId protocolName();
  NodeId genericSignature();
  NodeId layoutRequirement(NodeId subject);
  NodeId genericParam();
  NodeId assocTypeName();
  NodeId dependentMember(bool path);
  NodeId conformance();
  NodeId implFunctionType();
  NodeId specialization();
  NodeId functionSignatureSpecialization();
  NodeId embeddedName();
  bool enter();

  NodeArena& arena_;
  Cursor in_;
  std::vector<NodeId> substitutions_;
  unsigned depth_ = 0;
  unsigned steps_ = 0;
};

}  // namespace symlift::demangle::swift
