// Identifiers, substitutions and types of the Swift 3 mangling.

#include "demangle/swift/old_parser.h"

#include "demangle/swift/known_types.h"
#include "demangle/swift/punycode.h"

namespace symlift::demangle::swift {

NodeId OldParser::identifier() {
  bool punycode = in_.nextIf('X');
  char fixity = 0;
  if (in_.nextIf('o')) {
    fixity = in_.next();
    if (fixity != 'p' && fixity != 'P' && fixity != 'i') return kNoNode;
  }
  std::uint64_t length = 0;
  if (!in_.natural(length) || length == 0) return kNoNode;
  std::string_view text = in_.take(length);
  if (text.size() != length) return kNoNode;
  NodeKind kind = fixity == 'p' ? NodeKind::PrefixOperator
                  : fixity == 'P' ? NodeKind::PostfixOperator
                  : fixity == 'i' ? NodeKind::InfixOperator
                                  : NodeKind::Identifier;
  if (!punycode) return arena_.makeText(kind, text);
  std::string decoded;
  if (!decodePunycode(text, decoded)) return kNoNode;
  return arena_.withKind(arena_.makeOwnedText(NodeKind::Identifier, decoded), kind);
}

NodeId OldParser::substitution() {
  if (!in_.nextIf('S')) return kNoNode;
  char c = in_.peek();
  if (c == '_' || Cursor::isDigit(c)) {
    std::uint64_t index = 0;
    if (!in_.index(index) || index >= substitutions_.size()) return kNoNode;
    return substitutions_[index];
  }
  in_.next();
  switch (c) {
    case 'C': return arena_.makeText(NodeKind::Module, "__C_Synthesized");
    case 'o': return arena_.makeText(NodeKind::Module, "__C");
    case 's': return arena_.makeText(NodeKind::Module, "Swift");
    case 'c': {
      NodeId module = arena_.makeText(NodeKind::Module, "Swift");
      return arena_.make(NodeKind::Structure, {module, arena_.makeText(NodeKind::Identifier, "UnicodeScalar")});
    }
    case 'Q': {
      NodeId module = arena_.makeText(NodeKind::Module, "Swift");
      return arena_.make(NodeKind::Enum, {module, arena_.makeText(NodeKind::Identifier, "ImplicitlyUnwrappedOptional")});
    }
    default: break;
  }
  if (std::string_view("abdfiVvPpqRrSu").find(c) == std::string_view::npos) return kNoNode;
  return knownType(arena_, c, false);
}

NodeId OldParser::protocolName() {
  if (in_.peek() == 'S') {
    NodeId s = substitution();
    if (s == kNoNode) return kNoNode;
    if (arena_.kind(s) != NodeKind::Module) return s;
    NodeId name = declName();
    if (name == kNoNode) return kNoNode;
    NodeId protocol = arena_.make(NodeKind::Protocol, {s, name});
    substitutions_.push_back(protocol);
    return protocol;
  }
  NodeId ctx = context();
  NodeId name = ctx == kNoNode ? kNoNode : declName();
  if (name == kNoNode) return kNoNode;
  NodeId protocol = arena_.make(NodeKind::Protocol, {ctx, name});
  substitutions_.push_back(protocol);
  return protocol;
}

NodeId OldParser::nominal(NodeKind kind) {
  NodeId ctx = context();
  NodeId name = ctx == kNoNode ? kNoNode : declName();
  if (name == kNoNode) return kNoNode;
  NodeId node = arena_.make(kind, {ctx, name});
  substitutions_.push_back(node);
  return node;
}

NodeId OldParser::genericParam() {
  std::uint64_t depth = 0, index = 0;
  if (in_.nextIf('x')) return arena_.makeIndex(NodeKind::GenericParam, 0);
  if (in_.nextIf('d')) {
    if (!in_.index(depth) || !in_.index(index)) return kNoNode;
    depth += 1;
  } else {
    if (!in_.index(index)) return kNoNode;
    index += 1;
  }
  if (depth > 0xfffe || index > 0xffffffffu) return kNoNode;
  return arena_.makeIndex(NodeKind::GenericParam, depth << 32 | index);
}

// assoc-type-name ::= ('P' protocol-name)? identifier | substitution; a
// name read in full becomes a substitution.
NodeId OldParser::assocTypeName() {
  if (in_.peek() == 'S') {
    NodeId name = substitution();
    if (name == kNoNode) return kNoNode;
    NodeKind kind = arena_.kind(name);
    return kind == NodeKind::Identifier || kind == NodeKind::AssocTypeWithProtocol ? name : kNoNode;
  }
  NodeId name = kNoNode;
  if (in_.nextIf('P')) {
    NodeId protocol = protocolName();
    NodeId id = protocol == kNoNode ? kNoNode : identifier();
    if (id == kNoNode) return kNoNode;
    name = arena_.make(NodeKind::AssocTypeWithProtocol, {id, protocol});
  } else {
    name = identifier();
    if (name == kNoNode || arena_.kind(name) != NodeKind::Identifier) return kNoNode;
  }
  substitutions_.push_back(name);
  return name;
}

// 'w' generic-param-index assoc-type-name, or 'W' generic-param-index
// assoc-type-name+ '_' (the 'w' or 'W' already read).
NodeId OldParser::dependentMember(bool path) {
  NodeId node = genericParam();
  if (node == kNoNode) return kNoNode;
  do {
    if (!enter()) return kNoNode;
    NodeId name = assocTypeName();
    if (name == kNoNode) return kNoNode;
    node = arena_.make(NodeKind::DependentMember, {node, name});
  } while (path && !in_.nextIf('_'));
  return node;
}

// A layout letter, with a size ('e', 'm') or a size and an alignment ('E',
// 'M'), after 'l'.
NodeId OldParser::layoutRequirement(NodeId subject) {
  char c = in_.next();
  const char* text = nullptr;
  bool sized = false, aligned = false;
  switch (c) {
    case 'U': text = "_UnknownLayout"; break;
    case 'R': text = "_RefCountedObject"; break;
    case 'N': text = "_NativeRefCountedObject"; break;
    case 'C': text = "AnyObject"; break;
    case 'D': text = "_NativeClass"; break;
    case 'T': text = "_Trivial"; break;
    case 'e': text = "_Trivial"; sized = true; break;
    case 'E': text = "_Trivial"; sized = aligned = true; break;
    case 'm': text = "_TrivialAtMost"; sized = true; break;
    case 'M': text = "_TrivialAtMost"; sized = aligned = true; break;
    default: return kNoNode;
  }
  std::uint64_t size = 0, alignment = 0;
  if (sized && !in_.natural(size)) return kNoNode;
  if (aligned && (!in_.nextIf('_') || !in_.natural(alignment))) return kNoNode;
  NodeId node = arena_.makeText(NodeKind::RequirementLayout, text, std::span<const NodeId>(&subject, 1));
  if (sized) arena_.setIndex(node, (size << 32) | (aligned ? alignment : 0xffffffffu) | (std::uint64_t{1} << 63));
  return node;
}

NodeId OldParser::genericSignature() {
  std::vector<NodeId> children;
  while (in_.peek() != 'R' && in_.peek() != 'r') {
    std::uint64_t count = 0;
    if (in_.nextIf('z')) count = 0;
    else if (in_.index(count)) count += 1;
    else return kNoNode;
    if (children.size() > 64) return kNoNode;
    children.push_back(arena_.makeIndex(NodeKind::GenericParamCount, count));
  }
  if (children.empty()) children.push_back(arena_.makeIndex(NodeKind::GenericParamCount, 1));
  if (in_.nextIf('R')) {
    while (!in_.nextIf('r')) {
      if (!enter() || in_.atEnd()) return kNoNode;
      NodeId subject = kNoNode;
      if (in_.nextIf('w')) {
        subject = dependentMember(false);
      } else if (in_.nextIf('W')) {
        subject = dependentMember(true);
      } else {
        subject = genericParam();
      }
      if (subject == kNoNode) return kNoNode;
      if (in_.nextIf('l')) {
        NodeId requirement = layoutRequirement(subject);
        if (requirement == kNoNode) return kNoNode;
        children.push_back(requirement);
      } else if (in_.nextIf('z')) {
        NodeId t = type();
        if (t == kNoNode) return kNoNode;
        children.push_back(arena_.make(NodeKind::RequirementSameType, {subject, t}));
      } else if (in_.peek() == 'C') {
        NodeId t = type();
        if (t == kNoNode) return kNoNode;
        children.push_back(arena_.make(NodeKind::RequirementBaseClass, {subject, t}));
      } else {
        NodeId protocol = protocolName();
        if (protocol == kNoNode) return kNoNode;
        children.push_back(arena_.make(NodeKind::RequirementConformance, {subject, protocol}));
      }
    }
  } else if (!in_.nextIf('r')) {
    return kNoNode;
  }
  return arena_.make(NodeKind::GenericSignature, children);
}

NodeId OldParser::functionType(unsigned convention) {
  bool throws = in_.nextIf('z');
  NodeId params = type();
  NodeId result = params == kNoNode ? kNoNode : type();
  if (result == kNoNode) return kNoNode;
  // A parameter tuple of one unlabelled element is that element.
  if (arena_.kind(params) == NodeKind::Tuple && arena_.childCount(params) == 0)
    params = arena_.make(NodeKind::EmptyList);
  std::vector<NodeId> children{params, result};
  if (throws) children.push_back(arena_.makeText(NodeKind::FunctionAttr, "throws"));
  NodeId node = arena_.make(NodeKind::FunctionType, children);
  arena_.setIndex(node, convention);
  return node;
}

NodeId OldParser::tuple(bool variadic) {
  std::vector<NodeId> elements;
  while (!in_.nextIf('_')) {
    if (!enter() || in_.atEnd() || elements.size() > 256) return kNoNode;
    NodeId label = kNoNode;
    if (Cursor::isDigit(in_.peek()) || (in_.peek() == 'X' && Cursor::isDigit(in_.peek(1)))) label = identifier();
    NodeId t = type();
    if (t == kNoNode) return kNoNode;
    elements.push_back(label == kNoNode ? arena_.make(NodeKind::TupleElement, {t})
                                        : arena_.make(NodeKind::TupleElement, {t, label}));
  }
  if (variadic && !elements.empty()) arena_.setIndex(elements.back(), 1);
  return arena_.make(NodeKind::Tuple, elements);
}

NodeId OldParser::type() {
  if (!enter()) return kNoNode;
  struct Guard {
    unsigned& d;
    ~Guard() { --d; }
  } guard{++depth_};
  char c = in_.next();
  switch (c) {
    case 'B': {
      char b = in_.next();
      std::uint64_t width = 0;
      if (b == 'f' || b == 'i') {
        if (!in_.natural(width) || !in_.nextIf('_')) return kNoNode;
        NodeId node = arena_.makeText(NodeKind::BuiltinType, b == 'f' ? "Builtin.FPIEEE" : "Builtin.Int");
        arena_.setIndex(node, width);
        return node;
      }
      if (b == 'v') {
        if (!in_.natural(width)) return kNoNode;
        NodeId element = type();
        return element == kNoNode ? kNoNode : arena_.makeIndex(NodeKind::BuiltinVector, width, {element});
      }
      std::string_view name = builtinTypeName(b);
      return name.empty() ? kNoNode : arena_.makeText(NodeKind::BuiltinType, name);
    }
    case 'C': return nominal(NodeKind::Class);
    case 'V': return nominal(NodeKind::Structure);
    case 'O': return nominal(NodeKind::Enum);
    case 'S': in_.back(); return substitution();
    case 'a': return nominal(NodeKind::TypeAlias);
    case 'F': return functionType(0);
    case 'f': return functionType(0);
    case 'K': return functionType(2);
    case 'b': return functionType(4);
    case 'c': return functionType(5);
    case 'G': {
      NodeId base = type();
      if (base == kNoNode) return kNoNode;
      std::vector<NodeId> args;
      while (!in_.nextIf('_')) {
        NodeId arg = type();
        if (arg == kNoNode || args.size() > 64) return kNoNode;
        args.push_back(arg);
      }
      if (args.empty()) return kNoNode;
      return arena_.make(NodeKind::BoundGeneric, {base, arena_.make(NodeKind::TypeList, args)});
    }
    case 'M': {
      NodeId t = type();
      return t == kNoNode ? kNoNode : arena_.make(NodeKind::MetatypeType, {t});
    }
    case 'P': {
      if (in_.nextIf('M')) {
        NodeId t = type();
        return t == kNoNode ? kNoNode : arena_.make(NodeKind::ExistentialMetatype, {t});
      }
      std::vector<NodeId> protocols;
      while (!in_.nextIf('_')) {
        NodeId p = protocolName();
        if (p == kNoNode || protocols.size() > 64) return kNoNode;
        protocols.push_back(p);
      }
      return arena_.make(NodeKind::ProtocolList, protocols);
    }
    case 'R': {
      NodeId t = type();
      return t == kNoNode ? kNoNode : arena_.make(NodeKind::InOut, {t});
    }
    case 'T': return tuple(false);
    case 't': return tuple(true);
    case 'u': {
      NodeId signature = genericSignature();
      NodeId t = signature == kNoNode ? kNoNode : type();
      return t == kNoNode ? kNoNode : arena_.make(NodeKind::DependentGenericType, {signature, t});
    }
    case 'x': return arena_.makeIndex(NodeKind::GenericParam, 0);
    case 'q': return genericParam();
    case 'w': case 'W': return dependentMember(c == 'W');
    case 'D': {
      NodeId t = type();
      return t == kNoNode ? kNoNode : arena_.make(NodeKind::DynamicSelf, {t});
    }
    case 'E':
      if (!in_.nextIf("RR")) return kNoNode;
      return arena_.make(NodeKind::ErrorType);
    case 'X': {
      char x = in_.next();
      if (x == 'o' || x == 'u' || x == 'w') {
        NodeId t = type();
        if (t == kNoNode) return kNoNode;
        const char* text = x == 'o' ? "unowned" : x == 'u' ? "unowned(unsafe)" : "weak";
        return arena_.makeText(NodeKind::ReferenceStorage, text, std::span<const NodeId>(&t, 1));
      }
      if (x == 'f') return functionType(6);
      if (x == 'F') return implFunctionType();
      return kNoNode;
    }
    default:
      return kNoNode;
  }
}

NodeId OldParser::implFunctionType() {
  // Callee convention, attributes, then parameters and results as
  // convention letter and type, each list closed by '_'.
  char callee = in_.next();
  char mapped = callee == 'o' ? 'x' : callee == 'd' ? 'y' : callee == 'g' ? 'g' : callee == 't' ? 't' : 0;
  if (!mapped) return kNoNode;
  char repr = 0;
  if (in_.nextIf('C')) {
    char r = in_.next();
    repr = r == 'b' ? 'B' : r == 'c' ? 'C' : r == 'm' ? 'M' : r == 'O' ? 'J' : r == 'w' ? 'W' : 0;
    if (!repr) return kNoNode;
  }
  NodeId signature = kNoNode;
  if (in_.nextIf('G') || in_.nextIf('g')) signature = genericSignature();
  if (!in_.nextIf('_')) return kNoNode;
  std::vector<NodeId> children;
  for (int list = 0; list < 2; ++list) {
    while (!in_.nextIf('_')) {
      if (in_.atEnd() || children.size() > 64) return kNoNode;
      bool error = in_.nextIf('z');
      char conv = in_.next();
      char m = 0;
      if (list == 0) {
        m = conv == 'i' ? 'i' : conv == 'l' ? 'l' : conv == 'G' ? 'n' : conv == 'o' ? 'x' : conv == 'd' ? 'y'
            : conv == 'g' ? 'g' : conv == 'e' ? 'e' : 0;
      } else {
        m = conv == 'i' ? 'r' : conv == 'o' ? 'o' : conv == 'd' ? 'd' : conv == 'D' ? 'u' : conv == 'a' ? 'a'
            : conv == 'g' ? 'g' : 0;
      }
      NodeId t = m ? type() : kNoNode;
      if (t == kNoNode) return kNoNode;
      NodeKind kind = list == 0 ? NodeKind::ImplParameter : error ? NodeKind::ImplErrorResult : NodeKind::ImplResult;
      NodeId slot = arena_.make(kind, {t});
      arena_.setIndex(slot, static_cast<unsigned char>(m));
      children.push_back(slot);
    }
  }
  if (signature != kNoNode) children.push_back(signature);
  NodeId node = arena_.make(NodeKind::ImplFunctionType, children);
  arena_.setIndex(node, static_cast<unsigned char>(mapped) | std::uint64_t{static_cast<unsigned char>(repr)} << 8);
  return node;
}

}  // namespace symlift::demangle::swift
