// Types of the current mangling: tuples, existentials, generic signatures
// and requirements, associated and opaque types, special types ('X') and
// function type attributes ('Y').

#include "demangle/swift/modern_parser.h"

#include "demangle/swift/known_types.h"

namespace symlift::demangle::swift {

bool ModernParser::popListElements(std::vector<NodeId>& elements, const std::function<NodeId()>& popElement,
                                   std::size_t limit) {
  for (;;) {
    if (topIs(NodeKind::EmptyList)) {
      if (!elements.empty()) return false;
      pop();
      return true;
    }
    const bool first = popIfKind(NodeKind::FirstElementMarker) != kNoNode;
    const NodeId element = popElement();
    if (element == kNoNode) return false;
    elements.insert(elements.begin(), element);
    if (first) return true;
    if (elements.size() > limit) return false;
  }
}

bool ModernParser::parseTuple() {
  std::vector<NodeId> elements;
  const auto popElement = [this] {
    const NodeId variadic = popIfKind(NodeKind::VariadicMarker);
    const NodeId label = popIfKind(NodeKind::Identifier);
    const NodeId type = popType();
    if (type == kNoNode) return kNoNode;
    const NodeId element = label == kNoNode ? arena_.make(NodeKind::TupleElement, {type})
                                            : arena_.make(NodeKind::TupleElement, {type, label});
    arena_.setIndex(element, variadic != kNoNode ? 1 : 0);
    return element;
  };
  if (!popListElements(elements, popElement, 4096)) return false;
  push(arena_.make(NodeKind::Tuple, elements));
  return true;
}

bool ModernParser::parseProtocolList(NodeKind kind) {
  NodeId superclass = kNoNode;
  if (kind == NodeKind::ProtocolListWithClass && (superclass = popType()) == kNoNode) return false;
  std::vector<NodeId> protocols;
  if (!popListElements(protocols, [this] { return popProtocol(); })) return false;
  NodeId list = arena_.make(NodeKind::ProtocolList, protocols);
  if (kind == NodeKind::ProtocolListWithClass) list = arena_.make(kind, {list, superclass});
  if (kind == NodeKind::ProtocolListWithAnyObject) list = arena_.make(kind, {list});
  push(list);
  return true;
}

// depth << 32 | index; depth 0xffff stands for a constrained existential's Self.
bool ModernParser::parseGenericParamIndex(std::uint64_t& packed) {
  if (in_.nextIf('z')) {
    packed = 0;
    return true;
  }
  if (in_.nextIf('s')) {
    packed = std::uint64_t{0xffff} << 32;
    return true;
  }
  std::uint64_t depth = 0, index = 0;
  if (in_.nextIf('d')) {
    if (!in_.index(depth) || !in_.index(index)) return false;
    depth += 1;
  } else {
    if (!in_.index(index)) return false;
    index += 1;
  }
  if (depth > 0xfffe || index > 0xffffffffu) return false;
  packed = depth << 32 | index;
  return true;
}

bool ModernParser::parseGenericSignature(bool withCounts) {
  std::vector<NodeId> counts;
  if (withCounts) {
    in_.next();  // 'r'
    while (!in_.nextIf('l')) {
      std::uint64_t count = 0;
      if (in_.nextIf('z')) {
        count = 0;
      } else if (in_.index(count)) {
        count += 1;
      } else {
        return false;
      }
      if (counts.size() > 64) return false;
      counts.push_back(arena_.makeIndex(NodeKind::GenericParamCount, count));
    }
  } else {
    in_.next();  // 'l'
    counts.push_back(arena_.makeIndex(NodeKind::GenericParamCount, 1));
  }
  std::vector<NodeId> requirements;
  for (;;) {
    NodeId top = peekNode();
    if (top == kNoNode) break;
    NodeKind kind = arena_.kind(top);
    bool requirement = kind == NodeKind::RequirementConformance || kind == NodeKind::RequirementSameType ||
                       kind == NodeKind::RequirementBaseClass || kind == NodeKind::RequirementLayout ||
                       kind == NodeKind::RequirementInverse || kind == NodeKind::RequirementSameShape ||
                       kind == NodeKind::GenericParamPack || kind == NodeKind::GenericParamValue;
    if (!requirement) break;
    requirements.insert(requirements.begin(), pop());
  }
  counts.insert(counts.end(), requirements.begin(), requirements.end());
  push(arena_.make(NodeKind::GenericSignature, counts));
  return true;
}

bool ModernParser::parseAssociatedType() {
  // assoc-type-name: an identifier, or an identifier qualified by a protocol.
  if (topIs(NodeKind::Protocol) && peekNode(1) != kNoNode && arena_.kind(peekNode(1)) == NodeKind::Identifier) {
    NodeId protocol = pop();
    NodeId name = pop();
    push(arena_.make(NodeKind::AssocTypeWithProtocol, {name, protocol}));
    return true;
  }
  return topIs(NodeKind::Identifier) || topIs(NodeKind::AssocTypeWithProtocol) || topIs(NodeKind::DependentMember);
}

namespace {
NodeId memberChain(NodeArena& arena, NodeId base, const std::vector<NodeId>& names) {
  for (NodeId name : names) base = arena.make(NodeKind::DependentMember, {base, name});
  return base;
}
}  // namespace

bool ModernParser::parseRequirement() {
  char c = in_.next();
  std::uint64_t packed = 0;
  auto param = [&]() -> NodeId {
    if (!parseGenericParamIndex(packed)) return kNoNode;
    return arena_.makeIndex(NodeKind::GenericParam, packed);
  };
  auto assocName = [&]() -> NodeId {
    if (!parseAssociatedType()) return kNoNode;
    return pop();
  };
  auto assocList = [&](std::vector<NodeId>& names) -> bool {
    for (;;) {
      bool first = false;
      if (topIs(NodeKind::FirstElementMarker)) {
        pop();
        first = true;
      }
      NodeId name = assocName();
      if (name == kNoNode) return false;
      names.insert(names.begin(), name);
      if (first) return true;
      if (names.size() > 64) return false;
    }
  };
  auto layout = [&](NodeId subject) -> bool {
    char l = in_.next();
    const char* text = nullptr;
    std::uint64_t size = 0, alignment = 0;
    bool sized = false, aligned = false;
    switch (l) {
      case 'U': text = "_UnknownLayout"; break;
      case 'R': text = "_RefCountedObject"; break;
      case 'N': text = "_NativeRefCountedObject"; break;
      case 'C': text = "AnyObject"; break;
      case 'D': text = "_NativeClass"; break;
      case 'T': text = "_Trivial"; break;
      case 'B': text = "_BridgeObject"; break;
      case 'A': text = "AnyReference"; break;
      case 'E': text = "_Trivial"; sized = aligned = true; break;
      case 'e': text = "_Trivial"; sized = true; break;
      case 'M': text = "_TrivialAtMost"; sized = aligned = true; break;
      case 'm': text = "_TrivialAtMost"; sized = true; break;
      case 'S': text = "_TrivialStride"; sized = true; break;
      default: return false;
    }
    if (sized && !in_.index(size)) return false;
    if (aligned && !in_.index(alignment)) return false;
    NodeId node = arena_.makeText(NodeKind::RequirementLayout, text, std::span<const NodeId>(&subject, 1));
    // Bit 63: a size follows; then size << 32 and the alignment (all ones: none).
    if (sized) arena_.setIndex(node, (size << 32) | (aligned ? alignment : 0xffffffffu) | (std::uint64_t{1} << 63));
    push(node);
    return true;
  };
  switch (c) {
    case 'v': {
      NodeId p = param();
      if (p == kNoNode) return false;
      push(arena_.make(NodeKind::GenericParamPack, {p}));
      return true;
    }
    case 'V': {
      NodeId type = popType();
      NodeId p = param();
      if (type == kNoNode || p == kNoNode) return false;
      push(arena_.make(NodeKind::GenericParamValue, {type, p}));
      return true;
    }
    case 'p': case 'P': case 'c': case 'C': case 't': case 'T': case 'm': case 'M': case 'j': case 'J': {
      std::vector<NodeId> names;
      if (c == 'M' && !topIs(NodeKind::FirstElementMarker) && !topIs(NodeKind::Identifier) &&
          !topIs(NodeKind::AssocTypeWithProtocol)) {
        NodeId subject = popType();
        if (subject == kNoNode) return false;
        return layout(subject);
      }
      std::uint64_t inverse = 0;
      if ((c == 'j' || c == 'J') && !in_.index(inverse)) return false;
      if (c == 'P' || c == 'C' || c == 'T' || c == 'M' || c == 'J') {
        if (!assocList(names)) return false;
      } else {
        NodeId name = assocName();
        if (name == kNoNode) return false;
        names.push_back(name);
      }
      NodeId p = param();
      if (p == kNoNode) return false;
      // The associated type the requirement is on is a substitution.
      NodeId subject = memberChain(arena_, p, names);
      addSubstitution(subject);
      if (c == 'm' || c == 'M') return layout(subject);
      if (c == 'j' || c == 'J') {
        push(arena_.makeIndex(NodeKind::RequirementInverse, inverse, {subject}));
        return true;
      }
      NodeId other = (c == 'p' || c == 'P') ? popProtocol() : popType();
      if (other == kNoNode) return false;
      NodeKind kind = (c == 'p' || c == 'P')   ? NodeKind::RequirementConformance
                      : (c == 'c' || c == 'C') ? NodeKind::RequirementBaseClass
                                               : NodeKind::RequirementSameType;
      push(arena_.make(kind, {subject, other}));
      return true;
    }
    case 'Q': case 'B': case 'S': case 'I': {
      NodeId subject = popType();
      if (subject == kNoNode) return false;
      if (c == 'I') {
        std::uint64_t inverse = 0;
        if (!in_.index(inverse)) return false;
        push(arena_.makeIndex(NodeKind::RequirementInverse, inverse, {subject}));
        return true;
      }
      NodeId other = c == 'Q' ? popProtocol() : popType();
      if (other == kNoNode) return false;
      NodeKind kind = c == 'Q' ? NodeKind::RequirementConformance
                      : c == 'B' ? NodeKind::RequirementBaseClass
                                 : NodeKind::RequirementSameType;
      push(arena_.make(kind, {subject, other}));
      return true;
    }
    case 'i': {
      std::uint64_t inverse = 0;
      if (!in_.index(inverse)) return false;
      NodeId p = param();
      if (p == kNoNode) return false;
      push(arena_.makeIndex(NodeKind::RequirementInverse, inverse, {p}));
      return true;
    }
    case 'l': {
      NodeId p = param();
      return p != kNoNode && layout(p);
    }
    case 'L': {
      // A layout requirement on a substitution (early Swift 4).
      NodeId subject = popType();
      return subject != kNoNode && layout(subject);
    }
    case 'b': case 's': case 'h': {
      NodeId p = param();
      NodeId other = popType();
      if (p == kNoNode || other == kNoNode) return false;
      NodeKind kind = c == 'b' ? NodeKind::RequirementBaseClass
                      : c == 's' ? NodeKind::RequirementSameType
                                 : NodeKind::RequirementSameShape;
      push(arena_.make(kind, {p, other}));
      return true;
    }
    default: {
      in_.back();
      NodeId p = param();
      NodeId protocol = popProtocol();
      if (p == kNoNode || protocol == kNoNode) return false;
      push(arena_.make(NodeKind::RequirementConformance, {p, protocol}));
      return true;
    }
  }
}

bool ModernParser::parseQ() {
  char c = in_.next();
  std::uint64_t packed = 0, index = 0;
  switch (c) {
    case 'y': case 'z': {
      if (c == 'y' ? !parseGenericParamIndex(packed) : false) return false;
      if (!parseAssociatedType()) return false;
      NodeId name = pop();
      NodeId node = arena_.make(NodeKind::DependentMember, {arena_.makeIndex(NodeKind::GenericParam, packed), name});
      push(node);
      addSubstitution(node);
      return true;
    }
    case 'Y': case 'Z': {
      if (c == 'Y' && !parseGenericParamIndex(packed)) return false;
      std::vector<NodeId> names;
      for (;;) {
        bool first = false;
        if (topIs(NodeKind::FirstElementMarker)) {
          pop();
          first = true;
        }
        if (!parseAssociatedType()) return false;
        names.insert(names.begin(), pop());
        if (first) break;
        if (names.size() > 64) return false;
      }
      NodeId node = memberChain(arena_, arena_.makeIndex(NodeKind::GenericParam, packed), names);
      push(node);
      addSubstitution(node);
      return true;
    }
    case 'x': case 'X': {
      std::vector<NodeId> names;
      for (;;) {
        bool first = false;
        if (c == 'X' && topIs(NodeKind::FirstElementMarker)) {
          pop();
          first = true;
        }
        if (!parseAssociatedType()) return false;
        names.insert(names.begin(), pop());
        if (c == 'x' || first) break;
      }
      NodeId base = popType();
      if (base == kNoNode) return false;
      NodeId node = memberChain(arena_, base, names);
      push(node);
      addSubstitution(node);
      return true;
    }
    case 'a': {
      // An associated type declaration (entity) or member of a type.
      NodeId name = popIfKind(NodeKind::Identifier);
      if (name == kNoNode) return false;
      NodeId base = peekNode();
      if (base != kNoNode && isType(arena_.kind(base))) {
        pop();
        NodeId node = arena_.make(NodeKind::DependentMember, {base, name});
        push(node);
        addSubstitution(node);
        return true;
      }
      NodeId context = popContext();
      if (context == kNoNode) return false;
      push(arena_.make(NodeKind::AssociatedTypeDecl, {context, name}));
      return true;
    }
    case 'r': push(arena_.makeIndex(NodeKind::OpaqueReturnTypeRef, 0)); return true;
    case 'u': push(arena_.makeIndex(NodeKind::OpaqueReturnTypeRef, 0)); return true;
    case 'R': case 'U': {
      if (!in_.index(index)) return false;
      push(arena_.makeIndex(NodeKind::OpaqueReturnTypeRef, index + 1));
      return true;
    }
    case 'O': {
      NodeId entity = pop();
      if (entity == kNoNode) return false;
      push(arena_.make(NodeKind::OpaqueReturnTypeOf, {entity}));
      return true;
    }
    case 'o': {
      if (!in_.index(index)) return false;
      while (topIs(NodeKind::RetroactiveConformance)) pop();
      std::vector<NodeId> args;
      for (;;) {
        NodeId top = pop();
        if (top == kNoNode) return false;
        NodeKind kind = arena_.kind(top);
        if (kind == NodeKind::EmptyList) break;
        if (kind == NodeKind::FirstElementMarker) continue;
        if (!isType(kind)) return false;
        args.insert(args.begin(), top);
      }
      NodeId descriptor = popIfKind(NodeKind::OpaqueReturnTypeOf);
      if (descriptor == kNoNode) return false;
      NodeId node = arena_.makeIndex(NodeKind::OpaqueType, index, {descriptor, arena_.make(NodeKind::TypeList, args)});
      push(node);
      addSubstitution(node);
      return true;
    }
    case 'e': {
      NodeId type = popType();
      if (type == kNoNode || !in_.index(index)) return false;
      push(arena_.makeIndex(NodeKind::PackElement, index, {type}));
      return true;
    }
    case 'p': {
      NodeId count = popType();
      NodeId pattern = popType();
      if (count == kNoNode || pattern == kNoNode) return false;
      push(arena_.make(NodeKind::PackExpansion, {pattern, count}));
      return true;
    }
    case 'P': case 'S': {
      if (c == 'S') {
        char d = in_.next();
        if (d != 'i' && d != 'd') return false;
      }
      std::vector<NodeId> elements;
      for (;;) {
        NodeId top = pop();
        if (top == kNoNode) return false;
        NodeKind kind = arena_.kind(top);
        if (kind == NodeKind::EmptyList) break;
        if (kind == NodeKind::FirstElementMarker) {
          NodeId first = popType();
          if (first == kNoNode) return false;
          elements.insert(elements.begin(), first);
          break;
        }
        if (!isType(kind)) return false;
        elements.insert(elements.begin(), top);
      }
      push(arena_.make(c == 'P' ? NodeKind::PackType : NodeKind::SILPackType, elements));
      return true;
    }
    default:
      return false;
  }
}

bool ModernParser::parseY() {
  char c = in_.next();
  switch (c) {
    case 'a': push(arena_.makeText(NodeKind::FunctionAttr, "async")); return true;
    case 'b': push(arena_.makeText(NodeKind::FunctionAttr, "@Sendable")); return true;
    case 'T': push(arena_.makeText(NodeKind::FunctionAttr, "sending")); return true;
    case 'A': push(arena_.makeText(NodeKind::FunctionAttr, "@isolated(any)")); return true;
    case 'C': push(arena_.makeText(NodeKind::FunctionAttr, "nonisolated(nonsending)")); return true;
    case 'c': case 'K': {
      NodeId type = popType();
      if (type == kNoNode) return false;
      push(arena_.makeText(NodeKind::FunctionAttr, c == 'c' ? "@" : "throws", std::span<const NodeId>(&type, 1)));
      return true;
    }
    case 'j': {
      const char* text = nullptr;
      switch (in_.next()) {
        case 'f': text = "@differentiable(_forward)"; break;
        case 'r': text = "@differentiable(reverse)"; break;
        case 'd': text = "@differentiable"; break;
        case 'l': text = "@differentiable(_linear)"; break;
        default: return false;
      }
      push(arena_.makeText(NodeKind::FunctionAttr, text));
      return true;
    }
    case 'k': return wrapTop(NodeKind::NoDerivative);
    case 'l': case 'L': {
      // Lifetime dependence of a parameter ('l') or of self ('L').
      char d = in_.next();
      const char* kind = d == 's' ? "scope" : d == 'i' ? "inherit" : nullptr;
      if (!kind) return false;
      if (c == 'L') {
        push(arena_.makeText(NodeKind::FunctionAttr, d == 's' ? "(self lifetime dependence: scope)"
                                                              : "(self lifetime dependence: inherit)"));
        return true;
      }
      NodeId label = popIfKind(NodeKind::Identifier);
      NodeId type = popType();
      if (type == kNoNode) return false;
      push(arena_.makeText(NodeKind::LifetimeDependence, kind, std::span<const NodeId>(&type, 1)));
      if (label != kNoNode) push(label);
      return true;
    }
    case 'i': return wrapTop(NodeKind::Isolated);
    case 't': return wrapTop(NodeKind::CompileTimeConst);
    case 'u': return wrapTop(NodeKind::Sending);
    default: return false;
  }
}

bool ModernParser::parseX() {
  char c = in_.next();
  switch (c) {
    case 'o': case 'u': case 'w': {
      NodeId type = popType();
      if (type == kNoNode) return false;
      const char* text = c == 'o' ? "unowned" : c == 'u' ? "unowned(unsafe)" : "weak";
      push(arena_.makeText(NodeKind::ReferenceStorage, text, std::span<const NodeId>(&type, 1)));
      return true;
    }
    case 'D': return wrapTop(NodeKind::DynamicSelf);
    case 'e': push(arena_.make(NodeKind::ErrorType)); return true;
    case 'p': return wrapTop(NodeKind::ExistentialMetatype);
    case 'M': case 'm': {
      char repr = in_.next();
      const char* text = repr == 't' ? "@thin" : repr == 'T' ? "@thick" : repr == 'o' ? "@objc_metatype" : nullptr;
      NodeId type = popType();
      if (!text || type == kNoNode) return false;
      push(arena_.makeText(c == 'M' ? NodeKind::MetatypeType : NodeKind::ExistentialMetatype, text,
                           std::span<const NodeId>(&type, 1)));
      return true;
    }
    case 'c': return parseProtocolList(NodeKind::ProtocolListWithClass);
    case 'l': return parseProtocolList(NodeKind::ProtocolListWithAnyObject);
    case 'P': {
      std::vector<NodeId> requirements;
      for (;;) {
        NodeId top = pop();
        if (top == kNoNode) return false;
        if (arena_.kind(top) == NodeKind::FirstElementMarker) {
          NodeId first = pop();
          if (first == kNoNode) return false;
          requirements.insert(requirements.begin(), first);
          break;
        }
        requirements.insert(requirements.begin(), top);
      }
      NodeId base = popType();
      if (base == kNoNode) return false;
      push(arena_.make(NodeKind::ConstrainedExistential, {base, arena_.make(NodeKind::TypeList, requirements)}));
      return true;
    }
    case 'b': return wrapTop(NodeKind::SILBox);
    case 'x': case 'X': {
      // SIL boxes: a list of field types (and, generic, a signature and
      // the arguments).
      NodeId signature = kNoNode, args = kNoNode;
      if (c == 'X') {
        signature = popIfKind(NodeKind::GenericSignature);
        if (signature == kNoNode) return false;
        if (!parseTuple()) return false;
        args = pop();
      }
      if (!parseTuple()) return false;
      NodeId fields = pop();
      if (c == 'x') {
        push(arena_.make(NodeKind::SILBox, {fields}));
      } else {
        push(arena_.make(NodeKind::SILBoxGeneric, {fields, signature, args}));
      }
      return true;
    }
    case 'Z': {
      if (!parseTuple()) return false;
      pop();
      NodeId name = popIfKind(NodeKind::Identifier);
      NodeId context = popContext();
      if (name == kNoNode || context == kNoNode) return false;
      push(arena_.make(NodeKind::AnonymousContext, {context, name}));
      return true;
    }
    case 'Y': return parseNominal(NodeKind::OtherNominalType);
    case 'S': {
      char s = in_.next();
      NodeId type = popType();
      if (type == kNoNode) return false;
      if (s == 'q' || s == 'a') {
        NodeId list = arena_.make(NodeKind::TypeList, {type});
        push(arena_.make(NodeKind::BoundGeneric, {knownType(arena_, s, false), list}));
        return true;
      }
      if (s == 'D' || s == 'A') {
        NodeId key = popType();
        if (key == kNoNode) return false;
        if (s == 'A') {
          push(arena_.make(NodeKind::BuiltinFixedArray, {key, type}));
          return true;
        }
        NodeId list = arena_.make(NodeKind::TypeList, {key, type});
        push(arena_.make(NodeKind::BoundGeneric, {knownType(arena_, 'D', false), list}));
        return true;
      }
      return false;
    }
    case 'z': {
      // A function type with an explicit C type, given as an Itanium name.
      char kind = in_.next();
      std::uint64_t length = 0;
      if ((kind != 'B' && kind != 'C') || !in_.natural(length) || in_.take(length).size() != length) return false;
      return parseFunctionSignature(kind == 'B' ? 4 : 5);
    }
    case 'f': return parseFunctionSignature(6);
    case 'U': return parseFunctionSignature(0);
    case 'K': return parseFunctionSignature(3);
    case 'B': return parseFunctionSignature(4);
    case 'L': return parseFunctionSignature(4);
    case 'C': return parseFunctionSignature(5);
    case 'A': return parseFunctionSignature(2);
    case 'E': return parseFunctionSignature(1);
    case 'O': return parseFunctionSignature(7);
    case 'F': return true;
    default: return false;
  }
}

}  // namespace symlift::demangle::swift
