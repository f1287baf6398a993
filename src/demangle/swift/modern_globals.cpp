// Globals of the current mangling that are not declarations: metadata
// ('M'), witness tables and outlined value operations ('W'), conformance
// records ('H'), thunks and specializations ('T'), SIL function types ('I').

#include "demangle/swift/modern_parser.h"

namespace symlift::demangle::swift {

bool ModernParser::parseConformance(NodeId& out) {
  // type protocol [module [generic-signature]]: the module is missing when
  // the type is generic, which only the rest of the stack can tell.
  NodeId signature = popIfKind(NodeKind::GenericSignature);
  // Reading with a module pops at most four nodes; those are put back when
  // that reading fails.
  std::size_t depth = stack_.size();
  NodeId saved[4];
  for (std::size_t i = 0; i < 4; ++i) saved[i] = peekNode(i);
  NodeId module = kNoNode, protocol = kNoNode, type = kNoNode;
  if (topIs(NodeKind::Module) || topIs(NodeKind::Identifier)) {
    module = popModule();
    protocol = popProtocol();
    type = protocol == kNoNode ? kNoNode : popType();
    if (type == kNoNode) {
      std::size_t popped = depth - stack_.size();
      for (std::size_t i = popped; i-- > 0;) push(saved[i]);
      module = kNoNode;
    }
  }
  if (type == kNoNode) {
    if (signature != kNoNode) return false;
    protocol = popProtocol();
    type = protocol == kNoNode ? kNoNode : popType();
    if (type == kNoNode) return false;
  }
  std::vector<NodeId> children{type, protocol};
  if (module != kNoNode) children.push_back(module);
  if (signature != kNoNode) children.push_back(signature);
  out = arena_.make(NodeKind::ProtocolConformance, children);
  return true;
}

// assoc-type-name ('_' assoc-type-name*)?: names of an associated type
// path; Swift 4.0 wrote a single name without the '_'.
bool ModernParser::popAssocTypeList(std::vector<NodeId>& names, bool list) {
  bool marker = false;
  for (std::size_t depth = 0; list && depth < stack_.size();) {
    NodeKind kind = arena_.kind(peekNode(depth));
    if (kind == NodeKind::FirstElementMarker) {
      marker = true;
      break;
    }
    if (kind == NodeKind::Protocol && peekNode(depth + 1) != kNoNode &&
        arena_.kind(peekNode(depth + 1)) == NodeKind::Identifier) {
      depth += 2;
    } else if (kind == NodeKind::Identifier || kind == NodeKind::AssocTypeWithProtocol) {
      depth += 1;
    } else {
      break;
    }
  }
  for (;;) {
    bool first = popIfKind(NodeKind::FirstElementMarker) != kNoNode;
    if (!parseAssociatedType()) return false;
    names.insert(names.begin(), pop());
    if (first || !marker || names.size() > 64) return names.size() <= 64;
  }
}

NodeId ModernParser::popIfConformance() {
  if (stack_.empty()) return kNoNode;
  switch (arena_.kind(stack_.back())) {
    case NodeKind::ConcreteConformance: case NodeKind::DependentConformanceRoot:
    case NodeKind::DependentConformanceInherited: case NodeKind::DependentConformanceAssociated:
    case NodeKind::PackConformance:
      return pop();
    default:
      return kNoNode;
  }
}

bool ModernParser::popConformanceList(std::vector<NodeId>& list) {
  if (popIfKind(NodeKind::EmptyList) != kNoNode) return true;
  for (;;) {
    bool first = popIfKind(NodeKind::FirstElementMarker) != kNoNode;
    NodeId conformance = popIfConformance();
    if (conformance == kNoNode || list.size() > 256) return false;
    list.insert(list.begin(), conformance);
    if (first) return true;
  }
}

bool ModernParser::parseM() {
  char c = in_.next();
  switch (c) {
    case 'f': return prefixType(Phrase::FullTypeMetadata);
    case 'P': return prefixType(Phrase::TypeMetadataPattern);
    case 'a': return prefixType(Phrase::TypeMetadataAccessor);
    case 'L': return prefixType(Phrase::TypeMetadataLazyCache);
    case 'r': return prefixType(Phrase::CompletionFunction);
    case 'i': return prefixType(Phrase::InstantiationFunction);
    case 'I': return prefixType(Phrase::InstantiationCache);
    case 'l': return prefixType(Phrase::SingletonInitCache);
    case 'm': return prefixType(Phrase::Metaclass);
    case 'n': return prefixType(Phrase::NominalTypeDescriptor);
    case 'Q': return prefixTop(Phrase::OpaqueTypeDescriptor);
    case 'u': return prefixType(Phrase::MethodLookup);
    case 'U': return prefixType(Phrase::ObjCUpdate);
    case 's': return prefixType(Phrase::ObjCStub);
    case 't': return prefixType(Phrase::FullObjCStub);
    case 'p': return prefixProtocol(Phrase::ProtocolDescriptor);
    case 'o': return prefixType(Phrase::BaseOffset);
    case 'F': return prefixType(Phrase::FieldDescriptor);
    case 'B': return prefixType(Phrase::BuiltinDescriptor);
    case 'C': return prefixType(Phrase::SuperclassDescriptor);
    case 'S': return prefixProtocol(Phrase::SelfConformanceDescriptor);
    case 'D': return prefixType(Phrase::DemanglingCache);
    case 'V': return prefixTop(Phrase::PropertyDescriptor);
    case 'K': return prefixTop(Phrase::GlobalInstantiationCache);
    case 'J': return prefixTop(Phrase::NoncanonicalCache);
    case 'N': return prefixTop(Phrase::Noncanonical);
    case 'z': return prefixTop(Phrase::CanonicalCachingToken);
    case 'q': return prefixTop(Phrase::UniquingPrefix);
    case 'A': case 'c': {
      NodeId conformance = kNoNode;
      if (!parseConformance(conformance)) return false;
      push(arena_.makeIndex(NodeKind::Prefixed,
                            static_cast<std::uint64_t>(c == 'A' ? Phrase::AssocTypeReflection
                                                                : Phrase::ConformanceDescriptor),
                            {conformance}));
      return true;
    }
    case 'X': {
      char d = in_.next();
      if (d == 'M') {
        NodeId module = popModule();
        if (module == kNoNode) return false;
        push(arena_.makeIndex(NodeKind::Prefixed, static_cast<std::uint64_t>(Phrase::ModuleDescriptor), {module}));
        return true;
      }
      if (d == 'E' || d == 'X') {
        NodeId context = popContext();
        if (context == kNoNode) return false;
        Phrase phrase = d == 'E' ? Phrase::ExtensionDescriptor : Phrase::AnonymousDescriptor;
        push(arena_.makeIndex(NodeKind::Prefixed, static_cast<std::uint64_t>(phrase), {context}));
        return true;
      }
      return false;
    }
    default:
      return false;
  }
}

bool ModernParser::parseOutlined(Phrase phrase) {
  NodeId type = popType();
  if (type == kNoNode) return false;
  popIfKind(NodeKind::GenericSignature);
  push(arena_.makeIndex(NodeKind::Prefixed, static_cast<std::uint64_t>(phrase), {type}));
  return true;
}

bool ModernParser::parseW() {
  char c = in_.next();
  NodeId conformance = kNoNode;
  auto conformancePhrase = [&](Phrase phrase) {
    if (!parseConformance(conformance)) return false;
    push(arena_.makeIndex(NodeKind::Prefixed, static_cast<std::uint64_t>(phrase), {conformance}));
    return true;
  };
  switch (c) {
    case 'J': return parseAutoDiff('W');
    case 'V': return prefixType(Phrase::ValueWitnessTable);
    case 'v': {
      char d = in_.next();
      if (d != 'd' && d != 'i') return false;
      return prefixTop(d == 'd' ? Phrase::FieldOffset : Phrase::IndirectFieldOffset);
    }
    case 'C': return prefixTop(Phrase::EnumTagIndex);
    case 'P': return conformancePhrase(Phrase::WitnessTable);
    case 'p': return conformancePhrase(Phrase::WitnessTablePattern);
    case 'a': return conformancePhrase(Phrase::WitnessTableAccessor);
    case 'G': return conformancePhrase(Phrase::GenericWitnessTable);
    case 'r': return conformancePhrase(Phrase::ResilientWitnessTable);
    case 'I': return conformancePhrase(Phrase::WitnessTableInstantiation);
    case 'S': return prefixProtocol(Phrase::SelfConformanceWitnessTable);
    case 'L': case 'l': {
      if (!parseConformance(conformance)) return false;
      NodeId type = popType();
      if (type == kNoNode) return false;
      Phrase phrase = c == 'L' ? Phrase::LazyWitnessTableCache : Phrase::LazyWitnessTableAccessor;
      push(arena_.makeIndex(NodeKind::Prefixed, static_cast<std::uint64_t>(phrase),
                            {arena_.make(NodeKind::Thunk, {type, conformance})}));
      return true;
    }
    case 'T': case 'b': case 't': {
      // Associated type (witness table) and base witness table accessors.
      NodeId protocol = kNoNode;
      std::vector<NodeId> names;
      if (c != 't') {
        protocol = popProtocol();
        if (protocol == kNoNode) return false;
      }
      if ((c == 'T' || c == 't') && !popAssocTypeList(names, c == 'T')) return false;
      if (!parseConformance(conformance)) return false;
      NodeId path = names.empty() ? kNoNode : arena_.make(NodeKind::TypeList, names);
      std::vector<NodeId> children{conformance};
      if (path != kNoNode) children.push_back(path);
      if (protocol != kNoNode) children.push_back(protocol);
      Phrase phrase = c == 'T'   ? Phrase::AssocTypeWitnessTableAccessor
                      : c == 'b' ? Phrase::BaseWitnessTableAccessor
                                 : Phrase::AssocTypeMetadataAccessor;
      push(arena_.makeIndex(NodeKind::Prefixed, static_cast<std::uint64_t>(phrase),
                            {arena_.make(NodeKind::ConformanceDescriptor, children)}));
      return true;
    }
    case 'Z': case 'z': {
      std::vector<NodeId> names;
      while (topIs(NodeKind::FirstElementMarker)) {
        pop();
        NodeId name = popDeclName();
        if (name == kNoNode) return false;
        names.insert(names.begin(), name);
      }
      NodeId context = popContext();
      if (names.empty() || context == kNoNode) return false;
      std::vector<NodeId> variables;
      for (NodeId name : names) variables.push_back(arena_.make(NodeKind::Variable, {context, name}));
      NodeId subject = variables.size() == 1 ? variables[0] : arena_.make(NodeKind::TypeList, variables);
      Phrase phrase = c == 'Z' ? Phrase::OneTimeInitFunction : Phrase::OneTimeInitToken;
      push(arena_.makeIndex(NodeKind::Prefixed, static_cast<std::uint64_t>(phrase), {subject}));
      return true;
    }
    case 'y': case 'e':
      // Swift 4.0 outlined copy and consume, before 'WO'.
      if (!swift4_) return false;
      return parseOutlined(c == 'y' ? Phrase::OutlinedCopy : Phrase::OutlinedConsume);
    case 'O': {
      switch (in_.next()) {
        case 'y': return parseOutlined(Phrase::OutlinedCopy);
        case 'e': return parseOutlined(Phrase::OutlinedConsume);
        case 'r': return parseOutlined(Phrase::OutlinedRetain);
        case 's': return parseOutlined(Phrase::OutlinedRelease);
        case 'b': case 'B': return parseOutlined(Phrase::OutlinedInitWithTake);
        case 'c': case 'C': return parseOutlined(Phrase::OutlinedInitWithCopy);
        case 'd': case 'D': return parseOutlined(Phrase::OutlinedAssignWithTake);
        case 'f': case 'F': return parseOutlined(Phrase::OutlinedAssignWithCopy);
        case 'h': case 'H': return parseOutlined(Phrase::OutlinedDestroy);
        case 'i': return parseOutlined(Phrase::OutlinedStoreEnumTag);
        case 'j': return parseOutlined(Phrase::OutlinedEnumProject);
        case 'g': return parseOutlined(Phrase::OutlinedEnumGetTag);
        default: return false;
      }
    }
    default:
      return false;
  }
}

bool ModernParser::parseH() {
  char c = in_.next();
  std::uint64_t index = 0;
  switch (c) {
    case 'r': return prefixProtocol(Phrase::ProtocolRecord);
    case 'n': return prefixType(Phrase::NominalRecord);
    case 'o': return prefixTop(Phrase::OpaqueRecord);
    case 'F': return prefixTop(Phrase::AccessibleFunctionRecord);
    case 'c': {
      NodeId conformance = kNoNode;
      if (!parseConformance(conformance)) return false;
      push(arena_.makeIndex(NodeKind::Prefixed, static_cast<std::uint64_t>(Phrase::ConformanceRecord),
                            {conformance}));
      return true;
    }
    case 'P': case 'p': {
      NodeId protocol = popProtocol();
      if (protocol == kNoNode) return false;
      push(arena_.makeText(NodeKind::ConformanceRef, c == 'P' ? "type's module" : "protocol's module",
                           std::span<const NodeId>(&protocol, 1)));
      return true;
    }
    case 'C': {
      // type, conformance reference, then the conditional conformances:
      // 'y' when there are none, else the first one is followed by '_'.
      std::vector<NodeId> list;
      if (!popConformanceList(list)) return false;
      NodeId ref = popIfKind(NodeKind::ConformanceRef);
      if (ref == kNoNode) {
        // A retroactive conformance: protocol and the module declaring it.
        NodeId module = popModule();
        NodeId protocol = popProtocol();
        if (module == kNoNode || protocol == kNoNode) return false;
        const NodeId parts[] = {protocol, module};
        ref = arena_.makeText(NodeKind::ConformanceRef, "", parts);
      }
      NodeId type = popType();
      if (type == kNoNode) return false;
      push(arena_.make(NodeKind::ConcreteConformance, {type, ref, arena_.make(NodeKind::TypeList, list)}));
      return true;
    }
    case 'X': {
      std::vector<NodeId> list;
      if (!popConformanceList(list)) return false;
      push(arena_.make(NodeKind::PackConformance, {arena_.make(NodeKind::TypeList, list)}));
      return true;
    }
    case 'D': {
      NodeId protocol = popProtocol();
      NodeId type = popType();
      if (protocol == kNoNode || type == kNoNode || !in_.index(index)) return false;
      push(arena_.makeIndex(NodeKind::DependentConformanceRoot, index, {type, protocol}));
      return true;
    }
    case 'I': {
      NodeId protocol = popProtocol();
      NodeId base = popIfConformance();
      if (protocol == kNoNode || base == kNoNode || !in_.index(index)) return false;
      push(arena_.makeIndex(NodeKind::DependentConformanceInherited, index, {base, protocol}));
      return true;
    }
    case 'A': {
      NodeId protocol = popProtocol();
      NodeId type = popType();
      NodeId base = popIfConformance();
      if (protocol == kNoNode || type == kNoNode || base == kNoNode || !in_.index(index)) return false;
      push(arena_.makeIndex(NodeKind::DependentConformanceAssociated, index, {base, type, protocol}));
      return true;
    }
    case 'O': {
      NodeId type = popType();
      NodeId base = popIfConformance();
      if (type == kNoNode || base == kNoNode) return false;
      push(arena_.make(NodeKind::DependentConformanceInherited, {base, type}));
      return true;
    }
    default:
      return false;
  }
}

}  // namespace symlift::demangle::swift
