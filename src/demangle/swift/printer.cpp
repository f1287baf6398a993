// Printing of globals and declarations.

#include "demangle/swift/printer.h"

#include "demangle/swift/phrases.h"

namespace symlift::demangle::swift {

namespace {
// No real name prints anywhere near this; substitutions can make a short
// hostile name print exponentially long, so printing stops here.
constexpr std::size_t kMaxOutput = 16 * 1024;

struct DepthGuard {
  unsigned& depth;
  explicit DepthGuard(unsigned& d) : depth(d) { ++depth; }
  ~DepthGuard() { --depth; }
};

char operatorChar(char c) {
  switch (c) {
    case 'a': return '&'; case 'c': return '@'; case 'd': return '/'; case 'e': return '=';
    case 'g': return '>'; case 'l': return '<'; case 'm': return '*'; case 'n': return '!';
    case 'o': return '|'; case 'p': return '+'; case 'q': return '?'; case 'r': return '%';
    case 's': return '-'; case 't': return '~'; case 'x': return '^'; case 'z': return '.';
    default: return c;
  }
}
}  // namespace

bool Printer::printGlobal(NodeId global) {
  NodeId main = arena_.child(global, 0);
  NodeId suffix = arena_.child(global, 1);
  print(main);
  if (suffix != kNoNode && full_) {
    add(" with unmangled suffix \"");
    add(arena_.text(suffix));
    add('"');
  }
  return !failed_;
}

void Printer::add(std::string_view text) {
  if (out_.size() + text.size() > kMaxOutput) {
    failed_ = true;
    return;
  }
  out_.append(text);
}

void Printer::add(char c) { add(std::string_view(&c, 1)); }

void Printer::addNumber(std::uint64_t value) {
  char buffer[24];
  int n = 0;
  do {
    buffer[n++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value && n < 24);
  while (n) add(buffer[--n]);
}

void Printer::printIdentifierText(std::string_view text, bool isOperator) {
  if (isOperator) {
    for (char c : text) add(operatorChar(c));
    return;
  }
  // Names that are not plain identifiers print in backticks.
  bool plain = !text.empty() && !(text[0] >= '0' && text[0] <= '9');
  for (char c : text) {
    unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x80 && !((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '$'))
      plain = false;
  }
  if (!plain) add('`');
  add(text);
  if (!plain) add('`');
}

void Printer::printName(NodeId name) {
  switch (arena_.kind(name)) {
    case NodeKind::Identifier:
    case NodeKind::Module:
      printIdentifierText(arena_.text(name), false);
      return;
    case NodeKind::PrefixOperator:
    case NodeKind::PostfixOperator:
    case NodeKind::InfixOperator:
      printIdentifierText(arena_.text(name), true);
      add(arena_.kind(name) == NodeKind::PrefixOperator    ? " prefix"
          : arena_.kind(name) == NodeKind::PostfixOperator ? " postfix"
                                                           : " infix");
      return;
    case NodeKind::LocalDeclName:
      printName(arena_.child(name, 0));
      add(" #");
      addNumber(arena_.index(name) + 1);
      return;
    case NodeKind::PrivateDeclName: {
      NodeId identifier = arena_.child(name, 1);
      if (!full_) {
        if (identifier != kNoNode) printName(identifier);
        return;
      }
      add('(');
      if (identifier != kNoNode) {
        printName(identifier);
        add(' ');
      }
      add("in ");
      add(arena_.text(arena_.child(name, 0)));
      add(')');
      return;
    }
    case NodeKind::RelatedEntityDeclName:
      add("related decl '");
      add(arena_.text(name));
      add("' for ");
      printName(arena_.child(name, 0));
      return;
    default:
      print(name);
  }
}

bool Printer::isClassContext(NodeId context) const {
  for (;;) {
    if (context == kNoNode) return false;
    NodeKind kind = arena_.kind(context);
    if (kind == NodeKind::BoundGeneric) context = arena_.child(context, 0);
    else if (kind == NodeKind::Extension) context = arena_.child(context, 1);
    else return kind == NodeKind::Class;
  }
}

// Whether what is declared in context prints as "x in context": a function,
// closure or accessor, or a type declared in one (which has a local name).
bool Printer::isLocalContext(NodeId context) const {
  while (context != kNoNode && arena_.kind(context) == NodeKind::BoundGeneric) context = arena_.child(context, 0);
  if (context == kNoNode) return false;
  NodeKind kind = arena_.kind(context);
  if (isNominal(kind)) {
    NodeId name = arena_.child(context, 1);
    return name != kNoNode && arena_.kind(name) == NodeKind::LocalDeclName;
  }
  return isEntity(kind) && kind != NodeKind::AnonymousContext;
}

void Printer::printQualifier(NodeId context) {
  switch (arena_.kind(context)) {
    case NodeKind::Module:
      if (full_) {
        add(arena_.text(context));
        add('.');
      }
      return;
    case NodeKind::Extension: {
      if (full_) {
        add("(extension in ");
        add(arena_.text(arena_.child(context, 0)));
        add("):");
      }
      print(arena_.child(context, 1));
      NodeId signature = arena_.child(context, 2);
      // The simplified form keeps the parameters ("Reactive<A>"), not the where clause.
      if (signature != kNoNode) printGenericSignature(signature);
      add('.');
      return;
    }
    default:
      print(context);
      add('.');
  }
}

// Entities nested in a function, closure or accessor print as "x in f()".
void Printer::printEntity(NodeId id) {
  DepthGuard guard(depth_);
  if (depth_ > kMaxPrintDepth) {
    failed_ = true;
    return;
  }
  NodeKind kind = arena_.kind(id);
  if (kind == NodeKind::Static) {
    add("static ");
    print(arena_.child(id, 0));
    return;
  }
  if (kind == NodeKind::Accessor) {
    NodeId storage = arena_.child(id, 0);
    NodeId context = arena_.child(storage, 0);
    bool local = isLocalContext(context);
    if (!local) printQualifier(context);
    NodeKind storageKind = arena_.kind(storage);
    NodeId type = kNoNode;
    if (storageKind == NodeKind::Variable) {
      printName(arena_.child(storage, 1));
      type = arena_.child(storage, 2);
    } else {
      if (full_ && arena_.child(storage, 3) != kNoNode && arena_.kind(arena_.child(storage, 3)) == NodeKind::PrivateDeclName) {
        printName(arena_.child(storage, 3));
        add('.');
      }
      add("subscript");
      type = arena_.child(storage, 1);
    }
    add('.');
    add(arena_.text(id));
    if (full_ && type != kNoNode) {
      add(" : ");
      printType(type);
    }
    if (local) {
      add(" in ");
      print(context);
    }
    return;
  }
  NodeId context = arena_.child(id, 0);
  bool local = context != kNoNode && isLocalContext(context);
  if (!local && context != kNoNode) printQualifier(context);
  printEntityBody(id);
  if (local) {
    add(" in ");
    print(context);
  }
}

void Printer::printEntityBody(NodeId id) {
  NodeKind kind = arena_.kind(id);
  switch (kind) {
    case NodeKind::Class: case NodeKind::Structure: case NodeKind::Enum: case NodeKind::Protocol:
    case NodeKind::TypeAlias: case NodeKind::OtherNominalType: case NodeKind::GenericTypeParamDecl:
    case NodeKind::AssociatedTypeDecl:
      printName(arena_.child(id, 1));
      return;
    case NodeKind::Function:
      printName(arena_.child(id, 1));
      // "helper #1 (x:) in f()": a local function's number stands apart.
      if (arena_.kind(arena_.child(id, 1)) == NodeKind::LocalDeclName) add(' ');
      printEntityType(arena_.child(id, 2), arena_.child(id, 3), true);
      return;
    case NodeKind::Variable:
      printName(arena_.child(id, 1));
      if (full_ && arena_.child(id, 2) != kNoNode) {
        add(" : ");
        printType(arena_.child(id, 2));
      }
      return;
    case NodeKind::Subscript: {
      NodeId discriminator = arena_.child(id, 3);
      if (discriminator != kNoNode && full_) {
        printName(discriminator);
        add('.');
      }
      add("subscript");
      printEntityType(arena_.child(id, 1), arena_.child(id, 2), true);
      return;
    }
    case NodeKind::Allocator:
    case NodeKind::Constructor: {
      for (std::uint32_t i = 2; i < arena_.childCount(id); ++i) {
        NodeId child = arena_.child(id, i);
        if (arena_.kind(child) == NodeKind::PrivateDeclName && full_) {
          printName(child);
          add('.');
        }
      }
      // Only a class has an allocating initializer distinct from init.
      add(kind == NodeKind::Allocator && isClassContext(arena_.child(id, 0)) ? "__allocating_init" : "init");
      NodeId labels = arena_.child(id, 2);
      if (labels != kNoNode && arena_.kind(labels) != NodeKind::LabelList) labels = kNoNode;
      printEntityType(arena_.child(id, 1), labels, true);
      return;
    }
    case NodeKind::Destructor: add("deinit"); return;
    case NodeKind::Deallocator: add("__deallocating_deinit"); return;
    case NodeKind::IsolatedDeallocator: add("__isolated_deallocating_deinit"); return;
    case NodeKind::IVarInitializer: add("__ivar_initializer"); return;
    case NodeKind::IVarDestroyer: add("__ivar_destroyer"); return;
    case NodeKind::ExplicitClosure:
    case NodeKind::ImplicitClosure:
      add(kind == NodeKind::ExplicitClosure ? "closure #" : "implicit closure #");
      addNumber(arena_.index(id) + 1);
      if (full_ && arena_.child(id, 1) != kNoNode) printEntityType(arena_.child(id, 1), kNoNode, false);
      return;
    case NodeKind::AnonymousContext:
      add("(unknown context at ");
      add(arena_.text(arena_.child(id, 1)));
      add(')');
      return;
    default:
      return;
  }
}

// The type of a declaration: "(labels) -> result" for functions, " : T"
// otherwise; the simplified form keeps only a function's labels.
void Printer::printEntityType(NodeId type, NodeId labels, bool asFunction) {
  if (type == kNoNode) return;
  NodeId inner = type;
  NodeId signature = kNoNode;
  if (arena_.kind(type) == NodeKind::DependentGenericType) {
    signature = arena_.child(type, 0);
    inner = arena_.child(type, 1);
  }
  bool plainFunction = arena_.kind(inner) == NodeKind::FunctionType && arena_.index(inner) <= 1;
  if (!plainFunction) {
    if (!full_) return;
    add(" : ");
    printType(type);
    return;
  }
  if (!asFunction && !full_) return;
  if (!asFunction) add(' ');
  if (signature != kNoNode) printGenericSignature(signature);
  printFunctionType(inner, labels, asFunction);
}

void Printer::printFunctionParams(NodeId functionType, NodeId labels, bool withTypes) {
  NodeId params = arena_.child(functionType, 0);
  add('(');
  std::uint32_t count = 0;
  bool tuple = params != kNoNode && arena_.kind(params) == NodeKind::Tuple;
  if (params != kNoNode && arena_.kind(params) != NodeKind::EmptyList) count = tuple ? arena_.childCount(params) : 1;
  for (std::uint32_t i = 0; i < count; ++i) {
    NodeId element = tuple ? arena_.child(params, i) : kNoNode;
    NodeId elementType = tuple ? arena_.child(element, 0) : params;
    NodeId label = kNoNode;
    if (labels != kNoNode) {
      NodeId l = arena_.child(labels, i);
      if (l != kNoNode && arena_.kind(l) == NodeKind::Identifier) label = l;
    } else if (tuple) {
      label = arena_.child(element, 1);
    }
    if (withTypes) {
      if (i) add(", ");
      if (label != kNoNode) {
        printIdentifierText(arena_.text(label), false);
        add(": ");
      }
      printType(elementType);
      if (tuple && (arena_.index(element) & 1)) add("...");
    } else {
      if (label != kNoNode)
        printIdentifierText(arena_.text(label), false);
      else
        add('_');
      add(':');
    }
  }
  add(')');
}

void Printer::printPrefixed(NodeId id) {
  const PhraseText& phrase = phraseText(static_cast<Phrase>(arena_.index(id)));
  std::string_view text = (!full_ && phrase.simplified) ? phrase.simplified : phrase.full;
  NodeId subject = arena_.child(id, 0);
  if (subject == kNoNode) {
    // Nothing follows: the joining word goes too ("partial apply forwarder").
    std::size_t space = text.rfind(' ');
    if (space != std::string_view::npos) text = text.substr(0, space);
    add(text);
    return;
  }
  add(text);
  add(' ');
  Phrase p = static_cast<Phrase>(arena_.index(id));
  if (p == Phrase::LazyWitnessTableAccessor || p == Phrase::LazyWitnessTableCache) {
    printType(arena_.child(subject, 0));
    add(" and conformance ");
    printConformance(arena_.child(subject, 1));
    return;
  }
  print(subject);
}

}  // namespace symlift::demangle::swift
