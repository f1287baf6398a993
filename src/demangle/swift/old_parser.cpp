// Globals and declarations of the Swift 3 mangling.

#include "demangle/swift/old_parser.h"

#include "demangle/swift/known_types.h"
#include "demangle/swift/phrases.h"

namespace symlift::demangle::swift {

namespace {
constexpr unsigned kMaxDepth = 128;
constexpr unsigned kMaxSteps = 20000;

NodeId prefixed(NodeArena& arena, Phrase phrase, NodeId subject) {
  if (subject == kNoNode) return kNoNode;
  return arena.makeIndex(NodeKind::Prefixed, static_cast<std::uint64_t>(phrase), {subject});
}
}  // namespace

OldParser::OldParser(NodeArena& arena, std::string_view body) : arena_(arena), in_(body) {}

bool OldParser::enter() { return depth_ < kMaxDepth && ++steps_ < kMaxSteps; }

NodeId OldParser::parse() {
  NodeId g = global();
  if (g == kNoNode) return kNoNode;
  if (!in_.atEnd()) {
    // The rest is a suffix the compiler added (a specialization pass's).
    NodeId suffix = arena_.makeText(NodeKind::Suffix, in_.rest());
    return arena_.make(NodeKind::Global, {g, suffix});
  }
  return arena_.make(NodeKind::Global, {g});
}

NodeId OldParser::global() {
  if (!enter()) return kNoNode;
  struct Guard {
    unsigned& d;
    ~Guard() { --d; }
  } guard{++depth_};
  if (in_.nextIf("PA")) {
    bool objc = in_.nextIf('o');
    if (!in_.nextIf("__T")) return kNoNode;
    return prefixed(arena_, objc ? Phrase::ObjCPartialApply : Phrase::PartialApply, global());
  }
  char c = in_.peek();
  if (c == 'T') {
    in_.next();
    char t = in_.next();
    switch (t) {
      case 'o': return prefixed(arena_, Phrase::ObjC, global());
      case 'O': return prefixed(arena_, Phrase::NonObjC, global());
      case 'D': return prefixed(arena_, Phrase::Dynamic, global());
      case 'd': return prefixed(arena_, Phrase::DirectThunk, global());
      case 'V': return prefixed(arena_, Phrase::VTableThunk, global());
      case 'W': {
        NodeId conf = conformance();
        NodeId e = conf == kNoNode ? kNoNode : entity();
        if (e == kNoNode) return kNoNode;
        return arena_.make(NodeKind::ProtocolWitness, {conf, e});
      }
      case 'R': case 'r': {
        NodeId signature = in_.nextIf('G') ? genericSignature() : kNoNode;
        NodeId first = type();
        NodeId second = first == kNoNode ? kNoNode : type();
        if (second == kNoNode) return kNoNode;
        std::vector<NodeId> children{second, first};
        if (signature != kNoNode) children.push_back(signature);
        return arena_.makeText(NodeKind::ReabstractionThunk,
                               t == 'R' ? "reabstraction thunk helper" : "reabstraction thunk", children);
      }
      case 'S': return specialization();
      default: return kNoNode;
    }
  }
  if (c == 'M') {
    in_.next();
    char m = in_.peek();
    Phrase phrase = Phrase::TypeMetadata;
    switch (m) {
      case 'P': phrase = Phrase::TypeMetadataPattern; break;
      case 'a': phrase = Phrase::TypeMetadataAccessor; break;
      case 'L': phrase = Phrase::TypeMetadataLazyCache; break;
      case 'm': phrase = Phrase::Metaclass; break;
      case 'n': phrase = Phrase::NominalTypeDescriptor; break;
      case 'f': phrase = Phrase::FullTypeMetadata; break;
      case 'p': in_.next(); return prefixed(arena_, Phrase::ProtocolDescriptor, protocolName());
      default: m = 0;
    }
    if (m) in_.next();
    return prefixed(arena_, phrase, type());
  }
  if (c == 'w') {
    in_.next();
    std::string_view kind = valueWitnessName(in_.take(2));
    NodeId t = kind.empty() ? kNoNode : type();
    if (t == kNoNode) return kNoNode;
    return arena_.makeText(NodeKind::Described, kind, std::span<const NodeId>(&t, 1));
  }
  if (c == 'W') {
    in_.next();
    char w = in_.next();
    switch (w) {
      case 'V': return prefixed(arena_, Phrase::ValueWitnessTable, type());
      case 'o': return prefixed(arena_, Phrase::WitnessTableOffset, entity());
      case 'v': {
        char d = in_.next();
        if (d != 'd' && d != 'i') return kNoNode;
        return prefixed(arena_, d == 'd' ? Phrase::DirectFieldOffset : Phrase::IndirectFieldOffset, entity());
      }
      case 'P': return prefixed(arena_, Phrase::WitnessTable, conformance());
      case 'a': return prefixed(arena_, Phrase::WitnessTableAccessor, conformance());
      case 'G': return prefixed(arena_, Phrase::GenericWitnessTableOld, conformance());
      case 'I': return prefixed(arena_, Phrase::WitnessTableInstantiation, conformance());
      case 'l': case 'L': {
        NodeId t = type();
        NodeId conf = t == kNoNode ? kNoNode : conformance();
        if (conf == kNoNode) return kNoNode;
        return prefixed(arena_, w == 'l' ? Phrase::LazyWitnessTableAccessor : Phrase::LazyWitnessTableCache,
                        arena_.make(NodeKind::Thunk, {t, conf}));
      }
      case 't': case 'T': {
        NodeId conf = conformance();
        NodeId name = conf == kNoNode ? kNoNode : identifier();
        if (name == kNoNode) return kNoNode;
        std::vector<NodeId> children{conf, arena_.make(NodeKind::TypeList, {name})};
        if (w == 'T') {
          NodeId protocol = protocolName();
          if (protocol == kNoNode) return kNoNode;
          children.push_back(protocol);
        }
        return prefixed(arena_, w == 't' ? Phrase::AssocTypeMetadataAccessor : Phrase::AssocTypeWitnessTableAccessor,
                        arena_.make(NodeKind::ConformanceDescriptor, children));
      }
      default: return kNoNode;
    }
  }
  if (c == 't') {
    in_.next();
    NodeId t = type();
    return t == kNoNode ? kNoNode : arena_.make(NodeKind::TypeMangling, {t});
  }
  return entity();
}

// A mangled name embedded in a function signature specialization (a
// closure or function it propagates): its length, then the name with its
// "_T". Read as a name of its own; one that does not read is shown as is.
NodeId OldParser::embeddedName() {
  std::uint64_t length = 0;
  if (!in_.natural(length)) return kNoNode;
  std::string_view text = in_.take(length);
  if (text.size() != length || length == 0) return kNoNode;
  if (text.substr(0, 2) == "_T" && depth_ + 8 < kMaxDepth) {
    OldParser nested(arena_, text.substr(2));
    nested.depth_ = depth_ + 8;
    nested.steps_ = steps_;
    NodeId inner = nested.global();
    steps_ = nested.steps_;
    if (inner != kNoNode && nested.in_.atEnd()) return inner;
  }
  return arena_.makeText(NodeKind::Identifier, text);
}

// 'f' passid (argument '_')+ '_' mangled-name. Arguments are written in the
// codes of the current mangling for the printer: 'n' unchanged, 'c'
// closure (payload: closure, captured types), 'pf'/'pg' function or global,
// 'pi'/'pd' integer or float, 'psb' string; otherwise letters d (dead), g
// (owned to guaranteed), o (guaranteed to owned), x (exploded), i (boxed
// value promoted).
NodeId OldParser::functionSignatureSpecialization() {
  std::uint64_t flags = in_.nextIf('q') ? 1 : 0;
  if (!Cursor::isDigit(in_.next())) return kNoNode;
  std::vector<NodeId> children;
  while (!in_.nextIf('_')) {
    if (!enter() || in_.atEnd() || children.size() > 64) return kNoNode;
    std::size_t start = in_.position();
    std::string code;
    std::vector<NodeId> payload;
    if (in_.nextIf("cl")) {
      code = "c";
      NodeId closure = embeddedName();
      if (closure == kNoNode) return kNoNode;
      payload.push_back(closure);
      while (in_.peek() != '_') {
        NodeId t = type();
        if (t == kNoNode || payload.size() > 64) return kNoNode;
        payload.push_back(t);
      }
    } else if (in_.nextIf("cp")) {
      if (in_.nextIf("fr") || in_.nextIf('g')) {
        code = in_.text()[in_.position() - 1] == 'g' ? "pg" : "pf";
        NodeId name = code == "pg" ? identifier() : embeddedName();
        if (name == kNoNode) return kNoNode;
        payload.push_back(name);
      } else if (in_.nextIf('i') || in_.nextIf("fl")) {
        code = in_.text()[in_.position() - 1] == 'i' ? "pi" : "pd";
        std::size_t digits = in_.position();
        while (Cursor::isDigit(in_.peek())) in_.next();
        if (in_.position() == digits) return kNoNode;
        code.append(in_.text().substr(digits, in_.position() - digits));
      } else if (in_.nextIf("se")) {
        char encoding = in_.next();
        if ((encoding != '0' && encoding != '1') || !in_.nextIf('v')) return kNoNode;
        code = encoding == '0' ? "psb" : "psw";
        NodeId text = identifier();
        if (text == kNoNode) return kNoNode;
        payload.push_back(text);
      } else {
        return kNoNode;
      }
    } else if (in_.nextIf('n')) {
      code = "n";
    } else {
      while (in_.peek() != '_') {
        char c = in_.next();
        if (c == 's' || c == 'k') c = 'x';
        if (c != 'd' && c != 'g' && c != 'o' && c != 'x' && c != 'i') return kNoNode;
        code += c;
      }
      if (code.empty()) return kNoNode;
    }
    if (!in_.nextIf('_')) return kNoNode;
    (void)start;
    NodeId param = arena_.makeOwnedText(NodeKind::FuncSigParam, code);
    if (!payload.empty()) {
      NodeId withPayload = arena_.make(NodeKind::FuncSigParam, payload);
      arena_.copyText(withPayload, param);
      param = withPayload;
    }
    arena_.setIndex(param, children.size());
    children.push_back(param);
  }
  if (children.empty() || !in_.nextIf("_T")) return kNoNode;
  NodeId inner = global();
  if (inner == kNoNode) return kNoNode;
  children.push_back(inner);
  NodeId node = arena_.make(NodeKind::FunctionSigSpecialization, children);
  arena_.setIndex(node, flags);
  return node;
}

NodeId OldParser::specialization() {
  if (in_.nextIf('f')) return functionSignatureSpecialization();
  char kind = in_.next();
  if (kind != 'g' && kind != 'r') return kNoNode;
  std::uint64_t flags = in_.nextIf('q') ? 1 : 0;
  if (!Cursor::isDigit(in_.next())) return kNoNode;
  std::vector<NodeId> params;
  while (!in_.nextIf('_')) {
    NodeId t = type();
    if (t == kNoNode || params.size() > 64) return kNoNode;
    // Conformances of the replacement type follow it, up to '_'.
    while (!in_.nextIf('_')) {
      NodeId conf = conformance();
      if (conf == kNoNode) return kNoNode;
    }
    params.push_back(t);
  }
  if (!in_.nextIf("_T")) return kNoNode;
  NodeId inner = global();
  if (inner == kNoNode) return kNoNode;
  params.push_back(inner);
  NodeId node = arena_.makeText(NodeKind::Specialization,
                                kind == 'g' ? "generic specialization" : "generic not re-abstracted specialization",
                                params);
  arena_.setIndex(node, flags);
  return node;
}

NodeId OldParser::conformance() {
  if (!enter()) return kNoNode;
  NodeId signature = in_.nextIf('u') ? genericSignature() : kNoNode;
  NodeId t = type();
  NodeId protocol = t == kNoNode ? kNoNode : protocolName();
  NodeId mod = protocol == kNoNode ? kNoNode : module();
  if (mod == kNoNode) return kNoNode;
  std::vector<NodeId> children{t, protocol, mod};
  if (signature != kNoNode) children.push_back(signature);
  return arena_.make(NodeKind::ProtocolConformance, children);
}

NodeId OldParser::entity() {
  if (!enter()) return kNoNode;
  struct Guard {
    unsigned& d;
    ~Guard() { --d; }
  } guard{++depth_};
  if (in_.nextIf('Z')) {
    NodeId inner = entity();
    return inner == kNoNode ? kNoNode : arena_.make(NodeKind::Static, {inner});
  }
  char kind = in_.peek();
  if (kind == 'C' || kind == 'V' || kind == 'O' || kind == 'S') return type();
  if (kind != 'F' && kind != 'v' && kind != 'I' && kind != 'i') return kNoNode;
  in_.next();
  NodeId ctx = context();
  if (ctx == kNoNode) return kNoNode;
  char c = in_.peek();
  auto storage = [&](const char* accessor) -> NodeId {
    NodeId name = declName();
    NodeId t = name == kNoNode ? kNoNode : type();
    if (t == kNoNode) return kNoNode;
    NodeId variable = arena_.make(NodeKind::Variable, {ctx, name, t});
    if (!accessor) return variable;
    return arena_.makeText(NodeKind::Accessor, accessor, std::span<const NodeId>(&variable, 1));
  };
  std::uint64_t index = 0;
  switch (c) {
    case 'A':
      in_.next();
      if (!in_.index(index)) return kNoNode;
      return arena_.makeIndex(NodeKind::DefaultArgumentInitializer, index, {ctx});
    case 'a': case 'l': {
      in_.next();
      bool mut = c == 'a';
      const char* name = nullptr;
      switch (in_.next()) {
        case 'u': name = mut ? "unsafeMutableAddressor" : "unsafeAddressor"; break;
        case 'O': name = mut ? "owningMutableAddressor" : "owningAddressor"; break;
        case 'o': name = mut ? "nativeOwningMutableAddressor" : "nativeOwningAddressor"; break;
        case 'p': name = mut ? "nativePinningMutableAddressor" : "nativePinningAddressor"; break;
        default: return kNoNode;
      }
      return storage(name);
    }
    case 'C': case 'c': {
      in_.next();
      NodeId t = type();
      if (t == kNoNode) return kNoNode;
      return arena_.make(c == 'C' ? NodeKind::Allocator : NodeKind::Constructor, {ctx, t});
    }
    case 'D': in_.next(); return arena_.make(NodeKind::Deallocator, {ctx});
    case 'd': in_.next(); return arena_.make(NodeKind::Destructor, {ctx});
    case 'E': in_.next(); return arena_.make(NodeKind::IVarDestroyer, {ctx});
    case 'e': in_.next(); return arena_.make(NodeKind::IVarInitializer, {ctx});
    case 'g': in_.next(); return storage("getter");
    case 's': in_.next(); return storage("setter");
    case 'm': in_.next(); return storage("materializeForSet");
    case 'w': in_.next(); return storage("willset");
    case 'W': in_.next(); return storage("didset");
    case 'G': in_.next(); return storage("globalGetter");
    case 'i':
      if (kind == 'I') {
        in_.next();
        return arena_.make(NodeKind::Initializer, {ctx});
      }
      break;
    case 'U': case 'u': {
      in_.next();
      if (!in_.index(index)) return kNoNode;
      NodeId t = type();
      if (t == kNoNode) return kNoNode;
      return arena_.makeIndex(c == 'U' ? NodeKind::ExplicitClosure : NodeKind::ImplicitClosure, index, {ctx, t});
    }
    default: break;
  }
  NodeId name = declName();
  NodeId t = name == kNoNode ? kNoNode : type();
  if (t == kNoNode) return kNoNode;
  if (kind == 'F') return arena_.make(NodeKind::Function, {ctx, name, t});
  if (kind == 'i') return arena_.make(NodeKind::Subscript, {ctx, t});
  return arena_.make(NodeKind::Variable, {ctx, name, t});
}

NodeId OldParser::module() {
  if (in_.nextIf('s')) return arena_.makeText(NodeKind::Module, "Swift");
  if (in_.peek() == 'S') {
    NodeId s = substitution();
    if (s == kNoNode) return kNoNode;
    if (arena_.kind(s) == NodeKind::Identifier) return arena_.withKind(s, NodeKind::Module);
    return arena_.kind(s) == NodeKind::Module ? s : kNoNode;
  }
  NodeId name = identifier();
  if (name == kNoNode) return kNoNode;
  NodeId m = arena_.withKind(name, NodeKind::Module);
  substitutions_.push_back(m);
  return m;
}

NodeId OldParser::context() {
  if (!enter()) return kNoNode;
  char c = in_.peek();
  if (c == 'E' || c == 'e') {
    in_.next();
    NodeId mod = module();
    NodeId signature = (mod != kNoNode && c == 'e') ? genericSignature() : kNoNode;
    if (mod == kNoNode || (c == 'e' && signature == kNoNode)) return kNoNode;
    NodeId extended = context();
    if (extended == kNoNode) return kNoNode;
    return signature == kNoNode ? arena_.make(NodeKind::Extension, {mod, extended})
                                : arena_.make(NodeKind::Extension, {mod, extended, signature});
  }
  if (c == 'F' || c == 'v' || c == 'I' || c == 'i' || c == 'Z') return entity();
  if (c == 'C' || c == 'V' || c == 'O') return type();
  if (c == 'P') {
    in_.next();
    return protocolName();
  }
  if (c == 'S') {
    NodeId s = substitution();
    if (s == kNoNode) return kNoNode;
    return arena_.kind(s) == NodeKind::Identifier ? arena_.withKind(s, NodeKind::Module) : s;
  }
  return module();
}

NodeId OldParser::declName() {
  if (in_.nextIf('L')) {
    std::uint64_t index = 0;
    if (!in_.index(index)) return kNoNode;
    NodeId name = identifier();
    return name == kNoNode ? kNoNode : arena_.makeIndex(NodeKind::LocalDeclName, index, {name});
  }
  if (in_.nextIf('P')) {
    NodeId discriminator = identifier();
    NodeId name = discriminator == kNoNode ? kNoNode : identifier();
    return name == kNoNode ? kNoNode : arena_.make(NodeKind::PrivateDeclName, {discriminator, name});
  }
  return identifier();
}

}  // namespace symlift::demangle::swift
