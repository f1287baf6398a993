#pragma once
// Turns a read name into text, in the full form (module-qualified, with
// types, as Swift's own demangler prints it) or the simplified one (as
// crash reports print Swift frames).

#include <optional>
#include <string>

#include "demangle/swift/node.h"
#include "demangle/swift/swift_demangler.h"

namespace symlift::demangle::swift {

// Deeper nesting than this is no real name's; printing it is refused.
inline constexpr unsigned kMaxPrintDepth = 192;

class Printer {
 public:
  Printer(const NodeArena& arena, Form form, std::string& out) : arena_(arena), full_(form == Form::Full), out_(out) {}
  // False when the text would be too long or too deep to be a real name.
  bool printGlobal(NodeId global);

 private:
  void print(NodeId id);
  void add(std::string_view text);
  void add(char c);
  void addNumber(std::uint64_t value);
  void printName(NodeId name);
  void printIdentifierText(std::string_view text, bool isOperator);
  void printQualifier(NodeId context);
  void printEntity(NodeId id);
  bool isLocalContext(NodeId context) const;
  bool isClassContext(NodeId context) const;
  void printEntityBody(NodeId id);
  void printEntityType(NodeId type, NodeId labels, bool asFunction);
  void printFunctionParams(NodeId functionType, NodeId labels, bool withTypes);
  void printFunctionType(NodeId type, NodeId labels, bool entity);
  void printType(NodeId id);
  void printTypeBody(NodeId id);
  void printBoundGeneric(NodeId id);
  void printTuple(NodeId id);
  void printTupleElement(NodeId id);
  void printGenericSignature(NodeId id);
  void printRequirement(NodeId id);
  void printGenericParamName(std::uint64_t packed);
  void printImplFunctionType(NodeId id);
  void printConformance(NodeId id);
  void printSpecialization(NodeId id);
  void printFunctionSigSpecialization(NodeId id);
  void printFuncSigParam(NodeId id);
  void printPrefixed(NodeId id);
  void printMacroExpansion(NodeId id);
  void printAutoDiff(NodeId id);
  void printIndexSubset(NodeId subset);
  void printTypeList(NodeId list, std::string_view separator);
  bool isSwiftType(NodeId id, std::string_view name) const;

  const NodeArena& arena_;
  bool full_;
  std::string& out_;
  unsigned depth_ = 0;
  bool failed_ = false;
};

}  // namespace symlift::demangle::swift
