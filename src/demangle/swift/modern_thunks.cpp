// Thunks and specializations of the current mangling ('T' operators) and
// SIL function types ('I'), which thunks are typed by.

#include "demangle/swift/modern_parser.h"

namespace symlift::demangle::swift {

namespace {
// Bit flags of a specialization node's index.
constexpr std::uint64_t kSerialized = 1, kReprChanged = 2, kAsyncRemoved = 4;
}  // namespace

bool ModernParser::parseT() {
  char c = in_.next();
  switch (c) {
    case 'A': {
      NodeId subject = pop();
      push(subject == kNoNode
               ? arena_.makeIndex(NodeKind::Prefixed, static_cast<std::uint64_t>(Phrase::PartialApply))
               : arena_.makeIndex(NodeKind::Prefixed, static_cast<std::uint64_t>(Phrase::PartialApply), {subject}));
      return true;
    }
    case 'a':
      if (Cursor::isDigit(in_.peek()) || in_.peek() == 'q') return parseSpecialization('a');
      return prefixTop(Phrase::ObjCPartialApply);
    case 'Q': case 'Y': {
      std::uint64_t index = 0;
      NodeId subject = pop();
      if (subject == kNoNode || !in_.index(index)) return false;
      push(arena_.makeText(NodeKind::AsyncPartial, c == 'Q' ? "await" : "suspend",
                           std::span<const NodeId>(&subject, 1)));
      arena_.setIndex(stack_.back(), index);
      return true;
    }
    case 'w':
      switch (in_.next()) {
        case 'S': return prefixTop(Phrase::HasSymbol);
        case 'b': return prefixTop(Phrase::BackDeployThunk);
        case 'B': return prefixTop(Phrase::BackDeployFallback);
        case 'c': return prefixTop(Phrase::CoroFunctionPointer);
        case 'd': return prefixTop(Phrase::DefaultOverride);
        default: return false;
      }
    case 'j': return prefixTop(Phrase::DispatchThunk);
    case 'q': return prefixTop(Phrase::MethodDescriptor);
    case 'O': return prefixTop(Phrase::NonObjC);
    case 'o': return prefixTop(Phrase::ObjC);
    case 'D': return prefixTop(Phrase::Dynamic);
    case 'd': return prefixTop(Phrase::DirectThunk);
    case 'E': return prefixTop(Phrase::DistributedThunk);
    case 'F': return prefixTop(Phrase::DistributedAccessor);
    case 'I': return prefixTop(Phrase::DynamicallyReplaceable);
    case 'u': return prefixTop(Phrase::AsyncFunctionPointer);
    case 'X': return prefixTop(Phrase::DynamicFunctionVariable);
    case 'm': return prefixTop(Phrase::Merged);
    case 'c': return prefixTop(Phrase::CurryThunk);
    case 'S': return prefixTop(Phrase::SelfConformanceWitness);
    case 'L': return prefixProtocol(Phrase::ProtocolRequirementsBase);
    case 'C': return prefixType(Phrase::ContinuationPrototype);
    case 'W': {
      NodeId entity = pop();
      NodeId conformance = kNoNode;
      if (entity == kNoNode || !parseConformance(conformance)) return false;
      push(arena_.make(NodeKind::ProtocolWitness, {conformance, entity}));
      return true;
    }
    case 'R': case 'r': case 'y': {
      NodeId signature = popIfKind(NodeKind::GenericSignature);
      NodeId to = popType();
      NodeId from = popType();
      if (to == kNoNode || from == kNoNode) return false;
      if (c == 'y' && popType() == kNoNode) return false;
      std::vector<NodeId> children{from, to};
      if (signature != kNoNode) children.push_back(signature);
      push(arena_.makeText(NodeKind::ReabstractionThunk, c == 'r' ? "reabstraction thunk" : "reabstraction thunk helper",
                           children));
      return true;
    }
    case 'V': {
      NodeId base = pop();
      NodeId derived = pop();
      if (base == kNoNode || derived == kNoNode) return false;
      push(arena_.makeIndex(NodeKind::Prefixed, static_cast<std::uint64_t>(Phrase::VTableThunk), {derived}));
      return true;
    }
    case 'K': case 'k': case 'H': case 'h': {
      Phrase phrase = c == 'K' ? Phrase::KeyPathGetter : c == 'k' ? Phrase::KeyPathSetter
                      : c == 'H' ? Phrase::KeyPathEquals : Phrase::KeyPathHash;
      if (c == 'k' && in_.nextIf("mu")) phrase = Phrase::KeyPathUnappliedMethod;
      else if (c == 'k' && in_.nextIf("MA")) phrase = Phrase::KeyPathAppliedMethod;
      bool serialized = in_.nextIf('q');
      // Types (and a generic signature) follow the entity; the entity is
      // what the thunk is for.
      std::vector<NodeId> types;
      while (!stack_.empty() && (isType(arena_.kind(stack_.back())) ||
                                 arena_.kind(stack_.back()) == NodeKind::GenericSignature)) {
        if (stack_.size() == 1) break;
        types.push_back(pop());
      }
      NodeId subject = pop();
      if (subject == kNoNode) return false;
      std::vector<NodeId> children{subject};
      for (auto it = types.rbegin(); it != types.rend(); ++it)
        if (arena_.kind(*it) != NodeKind::GenericSignature) children.push_back(*it);
      NodeId thunk = arena_.make(NodeKind::Thunk, children);
      arena_.setIndex(thunk, serialized ? 1 : 0);
      push(arena_.makeIndex(NodeKind::Prefixed, static_cast<std::uint64_t>(phrase), {thunk}));
      return true;
    }
    case 'l': case 'M': {
      if (!parseAssociatedType()) return false;
      return prefixTop(c == 'l' ? Phrase::AssocTypeDescriptor : Phrase::DefaultAssocTypeAccessor);
    }
    case 'n': case 'N': case 'b': {
      NodeId required = popProtocol();
      if (required == kNoNode) return false;
      std::vector<NodeId> children;
      if (c != 'b') {
        NodeId subject = kNoNode;
        if (topIs(NodeKind::GenericParam) || topIs(NodeKind::DependentMember)) {
          subject = pop();
        } else {
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
          }
          subject = arena_.make(NodeKind::TypeList, names);
        }
        NodeId protocol = popProtocol();
        if (protocol == kNoNode) return false;
        children = {protocol, subject, required};
      } else {
        NodeId protocol = popType();
        if (protocol == kNoNode) return false;
        children = {protocol, required};
      }
      Phrase phrase = c == 'n' ? Phrase::AssocConformanceDescriptor
                      : c == 'N' ? Phrase::DefaultAssocConformanceAccessor
                                 : Phrase::BaseConformanceDescriptor;
      push(arena_.makeIndex(NodeKind::Prefixed, static_cast<std::uint64_t>(phrase),
                            {arena_.make(NodeKind::ConformanceDescriptor, children)}));
      return true;
    }
    case 'U': {
      NodeId type = popType();
      if (type == kNoNode) return false;
      return prefixTop(Phrase::GlobalActorThunk);
    }
    case 'v': {
      std::uint64_t index = 0;
      if (!in_.index(index)) return false;
      bool readOnly = in_.nextIf('r');
      NodeId context = pop();
      if (context == kNoNode) return false;
      push(arena_.makeText(NodeKind::OutlinedVariable, readOnly ? "read-only object" : "variable",
                           std::span<const NodeId>(&context, 1)));
      arena_.setIndex(stack_.back(), index);
      return true;
    }
    case 'e': {
      std::size_t start = in_.position();
      while (!in_.atEnd() && in_.peek() != '_') in_.next();
      std::string_view bridged = in_.text().substr(start, in_.position() - start);
      if (!in_.nextIf('_') || bridged.empty()) return false;
      NodeId subject = pop();
      if (subject == kNoNode) return false;
      push(arena_.makeText(NodeKind::Described, bridged, std::span<const NodeId>(&subject, 1)));
      arena_.setIndex(stack_.back(), 1);  // an outlined bridged method
      return true;
    }
    case 'g': case 'B': case 'G': case 's': case 'i': case 'p': case 'P': case 't':
      return parseSpecialization(c);
    case 'f':
      return parseFunctionSignatureSpecialization();
    case 'J':
      return parseAutoDiff('T');
    default:
      return false;
  }
}

// Automatic differentiation: 'TJ' (derivatives and their vtable thunks,
// 'TJV'), 'TJO' (self-reordering thunks), 'TJS' (subset parameters thunks)
// and 'WJ' (differentiability witnesses). The node's text says which, its
// index holds the function kind letter; children: subject, second type or
// kNoNode, generic signature or kNoNode, then the index subsets.
bool ModernParser::parseAutoDiff(char introducer) {
  char form = 'J';
  if (introducer == 'T' && (in_.peek() == 'V' || in_.peek() == 'O' || in_.peek() == 'S')) form = in_.next();
  char kind = in_.next();
  std::string_view kinds = introducer == 'W' ? "frdl" : "frdp";
  if (kind == 0 || kinds.find(kind) == std::string_view::npos) return false;
  auto subset = [&](char terminator) -> NodeId {
    std::size_t start = in_.position();
    while (in_.peek() == 'S' || in_.peek() == 'U') in_.next();
    std::size_t end = in_.position();
    if (end == start || !in_.nextIf(terminator)) return kNoNode;
    return arena_.makeText(NodeKind::IndexSubset, in_.text().substr(start, end - start));
  };
  NodeId subject = kNoNode, second = kNoNode, signature = kNoNode;
  NodeId parameters = kNoNode, results = kNoNode, toParameters = kNoNode;
  if (form == 'O') {
    second = popType();
    subject = popType();
    if (subject == kNoNode || second == kNoNode) return false;
  } else {
    parameters = subset('p');
    results = parameters == kNoNode ? kNoNode : subset('r');
    if (results == kNoNode) return false;
    if (form == 'S') {
      toParameters = subset('P');
      NodeId type = popType();
      if (toParameters == kNoNode || type == kNoNode) return false;
      // Of a derivative function (a global, then its type) or of a linear map.
      subject = pop();
      if (subject == kNoNode) {
        subject = type;
      } else {
        second = type;
      }
    } else {
      signature = popIfKind(NodeKind::GenericSignature);
      subject = pop();
      if (subject == kNoNode) return false;
    }
  }
  const char* text = introducer == 'W' ? "WJ" : form == 'V' ? "TJV" : form == 'O' ? "TJO" : form == 'S' ? "TJS" : "TJ";
  const NodeId children[] = {subject, second, signature, parameters, results, toParameters};
  NodeId node = arena_.makeText(NodeKind::AutoDiff, text, children);
  arena_.setIndex(node, static_cast<unsigned char>(kind));
  push(node);
  return true;
}

bool ModernParser::parseSpecialization(char kind) {
  while (kind == 't') {
    std::uint64_t dropped = 0;
    if (Cursor::isDigit(in_.peek()) && !in_.natural(dropped)) return false;
    kind = in_.next();
  }
  const char* text = nullptr;
  switch (kind) {
    case 'g': case 'B': text = "generic specialization"; break;
    case 'G': text = "generic not re-abstracted specialization"; break;
    case 's': text = "generic pre-specialization"; break;
    case 'i': text = "inlined generic function"; break;
    case 'a': text = "non-async specialization"; break;
    case 'p': text = "generic partial specialization"; break;
    case 'P': text = "generic not-reabstracted partial specialization"; break;
    default: return false;
  }
  std::uint64_t flags = 0;
  if (in_.nextIf('q')) flags |= kSerialized;
  in_.nextIf('m');  // metatype parameters removed (Swift 5.9 and 5.10); not printed
  if (in_.nextIf('a')) flags |= kAsyncRemoved;
  if (in_.nextIf('r')) flags |= kReprChanged;
  if (!Cursor::isDigit(in_.next())) return false;
  std::vector<NodeId> params;
  if (kind == 'p' || kind == 'P') {
    NodeId type = popType();
    if (type == kNoNode) return false;
    params.push_back(type);
  } else {
    for (;;) {
      while (topIs(NodeKind::RetroactiveConformance)) pop();
      if (topIs(NodeKind::FirstElementMarker)) {
        pop();
        NodeId first = popType();
        if (first == kNoNode) return false;
        params.insert(params.begin(), first);
        break;
      }
      NodeId type = popType();
      if (type == kNoNode) return false;
      params.insert(params.begin(), type);
      if (params.size() > 256) return false;
    }
  }
  NodeId global = pop();
  if (global == kNoNode) return false;
  params.push_back(global);
  push(arena_.makeText(NodeKind::Specialization, text, params));
  arena_.setIndex(stack_.back(), flags);
  return true;
}

}  // namespace symlift::demangle::swift
