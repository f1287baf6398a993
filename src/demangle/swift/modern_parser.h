#pragma once
// Reads the current mangling ($s, $S, _T0, $e) into nodes. The mangling is
// postfix: each operator takes its operands from a stack of what was read
// before it, so the reader is a loop over operators and a stack.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "demangle/swift/cursor.h"
#include "demangle/swift/node.h"
#include "demangle/swift/phrases.h"

namespace symlift::demangle::swift {

// The vectors a parser works in, kept from one name to the next so that
// reading a name allocates nothing once they have grown.
struct ParseBuffers {
  std::vector<NodeId> stack;
  std::vector<NodeId> substitutions;
  std::vector<std::string_view> words;
  std::vector<std::string_view> literals;  // identifier text not yet split into words
  std::string text;                        // an identifier being put together
  void clear() {
    stack.clear();
    substitutions.clear();
    words.clear();
    literals.clear();
  }
};

class ModernParser {
 public:
  // body: the name after its prefix. The arena must outlive the result.
  // swift4: the name had the Swift 4.0 and 4.1 prefix (_T0), whose
  // variables and accessors were mangled differently.
  ModernParser(NodeArena& arena, ParseBuffers& buffers, std::string_view body, bool swift4 = false);
  // A Global node, or kNoNode when the name cannot be read completely.
  // start: a node that stands before the body (the async entry point).
  NodeId parse(NodeId start = kNoNode);

 private:
  friend struct ModernOperators;

  // Stack.
  void push(NodeId id) { stack_.push_back(id); }
  NodeId pop();
  NodeId peekNode(std::size_t depth = 0) const;
  bool topIs(NodeKind kind) const;
  NodeId popType();
  NodeId popContext();
  NodeId popDeclName();
  NodeId popProtocol();
  NodeId popIfKind(NodeKind kind);
  // Pops the elements of a list, each with popElement, down to its start:
  // an empty-list marker (no elements) or the marker before the first
  // element. False when an element cannot be popped or there are more than
  // limit of them.
  bool popListElements(std::vector<NodeId>& elements, const std::function<NodeId()>& popElement,
                       std::size_t limit = SIZE_MAX);
  NodeId popModule();
  void addSubstitution(NodeId id);

  // Operators.
  bool parseOperator();
  bool parseIdentifier();
  bool parseSubstitution();
  bool parseKnownType();
  bool parseBuiltin();
  bool parseNominal(NodeKind kind);
  bool parseExtension();
  bool parseFunctionEntity();
  bool parseVariable();
  bool parseSubscript();
  bool parseAccessor(NodeId storage);
  bool parseSwift4Accessor();
  static bool isAccessorLetter(char c);
  bool parseF();
  bool parseLocalName();
  bool parseBoundGeneric();
  NodeId bindGenericArgs(NodeId nominal, std::vector<NodeId>& lists, std::size_t& next);
  bool parseFunctionSignature(unsigned convention);
  bool parseTuple();
  bool parseProtocolList(NodeKind kind);
  bool parseGenericSignature(bool withCounts);
  bool parseGenericParamIndex(std::uint64_t& packed);
  bool parseRequirement();
  bool parseAssociatedType();
  bool parseQ();
  bool parseX();
  bool parseY();
  bool parseM();
  bool parseW();
  bool parseH();
  bool parseT();
  bool parseSpecialization(char kind);
  bool parseFunctionSignatureSpecialization();
  bool parseImplFunctionType();
  bool parseOutlined(Phrase phrase);
  bool parseAutoDiff(char kind);
  bool parseConformance(NodeId& out);
  NodeId popIfConformance();
  bool popAssocTypeList(std::vector<NodeId>& names, bool list);
  bool popConformanceList(std::vector<NodeId>& list);
  bool wrapTop(NodeKind kind);
  bool prefixTop(Phrase phrase);
  bool prefixType(Phrase phrase);
  bool prefixProtocol(Phrase phrase);
  bool parseMacroExpansion();

  static constexpr unsigned kMaxSteps = 20000;

  NodeArena& arena_;
  Cursor in_;
  ParseBuffers& buffers_;
  std::vector<NodeId>& stack_;
  std::vector<NodeId>& substitutions_;
  std::vector<std::string_view>& words_;
  unsigned steps_ = 0;
  bool swift4_ = false;
};

}  // namespace symlift::demangle::swift
