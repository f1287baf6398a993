// Printing of types, generic signatures, conformances and thunks.

#include "demangle/swift/printer.h"

namespace symlift::demangle::swift {

void Printer::print(NodeId id) {
  if (failed_ || id == kNoNode) return;
  if (++depth_ > kMaxPrintDepth) {
    failed_ = true;
    --depth_;
    return;
  }
  NodeKind kind = arena_.kind(id);
  switch (kind) {
    case NodeKind::Prefixed: printPrefixed(id); break;
    case NodeKind::Described:
      if (arena_.index(id) == 1) {
        add("outlined bridged method (");
        add(arena_.text(id));
        add(") of ");
      } else {
        add(arena_.text(id));
        add(full_ ? " value witness for " : " for ");
      }
      print(arena_.child(id, 0));
      break;
    case NodeKind::AsyncPartial:
      if (full_) {
        add('(');
        addNumber(arena_.index(id));
        add(") ");
        add(arena_.text(id));
        add(" resume partial function for ");
      }
      print(arena_.child(id, 0));
      break;
    case NodeKind::ProtocolWitness:
      add("protocol witness for ");
      print(arena_.child(id, 1));
      add(" in conformance ");
      printConformance(arena_.child(id, 0));
      break;
    case NodeKind::ProtocolConformance: printConformance(id); break;
    case NodeKind::Specialization: printSpecialization(id); break;
    case NodeKind::FunctionSigSpecialization: printFunctionSigSpecialization(id); break;
    case NodeKind::ReabstractionThunk:
      if (!full_) {
        add("thunk for ");
        printType(arena_.child(id, 0));
        break;
      }
      add(arena_.text(id));
      if (arena_.child(id, 2) != kNoNode) {
        add(' ');
        printGenericSignature(arena_.child(id, 2));
      }
      add(" from ");
      printType(arena_.child(id, 0));
      add(" to ");
      printType(arena_.child(id, 1));
      break;
    case NodeKind::OutlinedVariable:
      add("outlined ");
      add(arena_.text(id));
      add(" #");
      addNumber(arena_.index(id));
      add(" of ");
      print(arena_.child(id, 0));
      break;
    case NodeKind::DefaultArgumentInitializer:
      add("default argument ");
      addNumber(arena_.index(id));
      add(" of ");
      print(arena_.child(id, 0));
      break;
    case NodeKind::Initializer:
      add("variable initialization expression of ");
      print(arena_.child(id, 0));
      break;
    case NodeKind::PropertyWrapperBackingInitializer:
      add("property wrapper backing initializer of ");
      print(arena_.child(id, 0));
      break;
    case NodeKind::PropertyWrappedFieldInitAccessor:
      add("property wrapped field init accessor of ");
      print(arena_.child(id, 0));
      break;
    case NodeKind::PropertyWrapperInitFromProjectedValue:
      add("property wrapper init from projected value of ");
      print(arena_.child(id, 0));
      break;
    case NodeKind::ConformanceDescriptor: {
      std::uint32_t n = arena_.childCount(id);
      NodeId first = arena_.child(id, 0);
      if (arena_.kind(first) == NodeKind::ProtocolConformance) {
        // Witness table accessors for associated types and base protocols.
        NodeId path = n > 1 && arena_.kind(arena_.child(id, 1)) == NodeKind::TypeList ? arena_.child(id, 1) : kNoNode;
        NodeId protocol = arena_.child(id, n - 1) != first && arena_.child(id, n - 1) != path ? arena_.child(id, n - 1) : kNoNode;
        if (path != kNoNode) printTypeList(path, ".");
        if (protocol != kNoNode) {
          if (path != kNoNode) add(" : ");
          print(protocol);
        }
        add(" in ");
        printConformance(first);
        break;
      }
      print(first);
      if (n == 3) {
        add('.');
        NodeId subject = arena_.child(id, 1);
        if (arena_.kind(subject) == NodeKind::TypeList) printTypeList(subject, ".");
        else printType(subject);
      }
      add(": ");
      print(arena_.child(id, n - 1));
      break;
    }
    case NodeKind::Thunk:
      // A key path accessor: the property, then the types it is used with.
      print(arena_.child(id, 0));
      if (full_) {
        for (std::uint32_t i = 1; i < arena_.childCount(id); ++i) {
          add(" : ");
          printType(arena_.child(id, i));
        }
        if (arena_.index(id) & 1) add(", serialized");
      }
      break;
    case NodeKind::TypeMangling: printType(arena_.child(id, 0)); break;
    case NodeKind::Module: add(arena_.text(id)); break;
    case NodeKind::Identifier: printIdentifierText(arena_.text(id), false); break;
    case NodeKind::AssocTypeWithProtocol:
      print(arena_.child(id, 1));
      add('.');
      print(arena_.child(id, 0));
      break;
    case NodeKind::TypeList: printTypeList(id, ", "); break;
    case NodeKind::Extension: printQualifier(id); out_.pop_back(); break;
    case NodeKind::MacroExpansion: printMacroExpansion(id); break;
    case NodeKind::AsyncMainEntry: add("async main entry point"); break;
    case NodeKind::AutoDiff: printAutoDiff(id); break;
    case NodeKind::ConcreteConformance:
      add("concrete protocol conformance ");
      printType(arena_.child(id, 0));
      break;
    default:
      if (isEntity(kind) && !isNominal(kind)) printEntity(id);
      else printType(id);
  }
  --depth_;
}

void Printer::printIndexSubset(NodeId subset) {
  add('{');
  std::string_view bits = arena_.text(subset);
  bool first = true;
  for (std::size_t i = 0; i < bits.size(); ++i) {
    if (bits[i] != 'S') continue;
    if (!first) add(", ");
    first = false;
    addNumber(i);
  }
  add('}');
}

void Printer::printAutoDiff(NodeId id) {
  std::string_view form = arena_.text(id);
  char kind = static_cast<char>(arena_.index(id));
  NodeId subject = arena_.child(id, 0), second = arena_.child(id, 1), signature = arena_.child(id, 2);
  const char* kindName = kind == 'f' ? "forward-mode derivative" : kind == 'r' ? "reverse-mode derivative"
                         : kind == 'd' ? "differential" : "pullback";
  if (form == "WJ") {
    add(kind == 'f' ? "forward-mode" : kind == 'r' ? "reverse-mode" : kind == 'd' ? "normal" : "linear");
    add(" differentiability witness for ");
    print(subject);
  } else if (form == "TJO") {
    add("autodiff self-reordering reabstraction thunk for ");
    add(kindName);
    add(" from ");
    printType(subject);
    add(" to ");
    printType(second);
    return;
  } else if (form == "TJS") {
    add("autodiff subset parameters thunk for ");
    add(kindName);
    add(" from ");
    print(subject);
  } else {
    if (form == "TJV") add("vtable thunk for ");
    add(kindName);
    add(" of ");
    print(subject);
  }
  add(" with respect to parameters ");
  printIndexSubset(arena_.child(id, 3));
  add(" and results ");
  printIndexSubset(arena_.child(id, 4));
  if (form == "TJS") {
    add(" to parameters ");
    printIndexSubset(arena_.child(id, 5));
    if (second != kNoNode) {
      add(" of type ");
      printType(second);
    }
  }
  if (signature != kNoNode && full_) {
    add(" with ");
    printGenericSignature(signature);
  }
}

void Printer::printMacroExpansion(NodeId id) {
  std::uint64_t packed = arena_.index(id);
  char kind = static_cast<char>(packed >> 56);
  std::uint64_t number = (packed & ((std::uint64_t{1} << 56) - 1)) + 1;
  NodeId macro = arena_.child(id, 1), attachedTo = arena_.child(id, 2), discriminator = arena_.child(id, 3);
  const char* attached = nullptr;
  switch (kind) {
    case 'a': attached = "accessor"; break;
    case 'r': attached = "member attribute"; break;
    case 'm': attached = "member"; break;
    case 'p': attached = "peer"; break;
    case 'c': attached = "conformance"; break;
    case 'e': attached = "extension"; break;
    case 'q': attached = "preamble"; break;
    case 'b': attached = "body"; break;
    default: break;
  }
  if (kind == 'u') {
    add("unique name #");
  } else if (attached) {
    add(attached);
    add(" macro @");
    printName(macro);
    add(" expansion #");
  } else {
    add("freestanding macro expansion #");
  }
  addNumber(number);
  add(" of ");
  printName(attached ? attachedTo : macro);
  if (discriminator != kNoNode && full_) {
    add("(in ");
    add(arena_.text(arena_.child(discriminator, 0)));
    add(')');
  }
  add(" in ");
  print(arena_.child(id, 0));
}

void Printer::printTypeList(NodeId list, std::string_view separator) {
  for (std::uint32_t i = 0; i < arena_.childCount(list); ++i) {
    if (i) add(separator);
    print(arena_.child(list, i));
  }
}

bool Printer::isSwiftType(NodeId id, std::string_view name) const {
  NodeId context = arena_.child(id, 0);
  NodeId identifier = arena_.child(id, 1);
  return context != kNoNode && identifier != kNoNode && arena_.kind(context) == NodeKind::Module &&
         arena_.text(context) == "Swift" && arena_.text(identifier) == name;
}

void Printer::printBoundGeneric(NodeId id) {
  NodeId base = arena_.child(id, 0);
  NodeId args = arena_.child(id, 1);
  std::uint32_t count = arena_.childCount(args);
  NodeKind baseKind = arena_.kind(base);
  if (baseKind == NodeKind::Enum && count == 1 && isSwiftType(base, "Optional")) {
    NodeId arg = arena_.child(args, 0);
    NodeKind argKind = arena_.kind(arg);
    bool parens = argKind == NodeKind::FunctionType || argKind == NodeKind::ImplFunctionType ||
                  (argKind == NodeKind::ProtocolList && arena_.childCount(arg) > 1) ||
                  argKind == NodeKind::ProtocolListWithClass || argKind == NodeKind::ConstrainedExistential;
    if (parens) add('(');
    printType(arg);
    if (parens) add(')');
    add('?');
    return;
  }
  if (baseKind == NodeKind::Enum && count == 1 && isSwiftType(base, "ImplicitlyUnwrappedOptional")) {
    printType(arena_.child(args, 0));
    add('!');
    return;
  }
  if (baseKind == NodeKind::Structure && count == 1 && isSwiftType(base, "Array")) {
    add('[');
    printType(arena_.child(args, 0));
    add(']');
    return;
  }
  if (baseKind == NodeKind::Structure && count == 2 && isSwiftType(base, "Dictionary")) {
    add('[');
    printType(arena_.child(args, 0));
    add(" : ");
    printType(arena_.child(args, 1));
    add(']');
    return;
  }
  if (baseKind == NodeKind::Protocol && count == 1) {
    // A protocol's generic argument is its Self type.
    printType(arena_.child(args, 0));
    add(" as ");
    printType(base);
    return;
  }
  if (isEntity(baseKind) && !isNominal(baseKind)) {
    // Arguments bound to a generic function that a local type is nested in.
    NodeId context = arena_.child(base, 0);
    if (!isLocalContext(context)) printQualifier(context);
    if (baseKind == NodeKind::Function) printName(arena_.child(base, 1));
    add('<');
    printTypeList(args, ", ");
    add('>');
    NodeId type = baseKind == NodeKind::Function ? arena_.child(base, 2) : arena_.child(base, 1);
    if (type != kNoNode && arena_.kind(type) == NodeKind::DependentGenericType) type = arena_.child(type, 1);
    if (type != kNoNode && arena_.kind(type) == NodeKind::FunctionType)
      printFunctionType(type, arena_.child(base, baseKind == NodeKind::Function ? 3 : 2), true);
    return;
  }
  printType(base);
  add('<');
  printTypeList(args, ", ");
  add('>');
}

void Printer::printTupleElement(NodeId id) {
  NodeId label = arena_.child(id, 1);
  if (label != kNoNode) {
    printIdentifierText(arena_.text(label), false);
    add(": ");
  }
  printType(arena_.child(id, 0));
  if (arena_.index(id) & 1) add("...");
}

void Printer::printTuple(NodeId id) {
  add('(');
  for (std::uint32_t i = 0; i < arena_.childCount(id); ++i) {
    if (i) add(", ");
    printTupleElement(arena_.child(id, i));
  }
  add(')');
}

void Printer::printFunctionType(NodeId type, NodeId labels, bool entity) {
  std::uint32_t n = arena_.childCount(type);
  NodeId throwsAttr = kNoNode, sendingAttr = kNoNode, asyncAttr = kNoNode;
  if (!(entity && !full_)) {
    for (std::uint32_t i = 2; i < n; ++i) {
      NodeId attr = arena_.child(type, i);
      std::string_view text = arena_.text(attr);
      if (text == "throws") throwsAttr = attr;
      else if (text == "sending") sendingAttr = attr;
      else if (text == "async") asyncAttr = attr;
    }
    // Attributes before the parameters, in the order Swift prints them.
    for (std::string_view wanted : {"(self", "@differentiable", "@", "@isolated(any)", "nonisolated(nonsending)", "@Sendable"}) {
      for (std::uint32_t i = 2; i < n; ++i) {
        NodeId attr = arena_.child(type, i);
        std::string_view text = arena_.text(attr);
        bool match = wanted == "@differentiable" || wanted == "(self" ? text.substr(0, wanted.size()) == wanted
                                                                     : text == wanted;
        if (!match) continue;
        add(text);
        if (text == "@") printType(arena_.child(attr, 0));
        add(' ');
      }
    }
    switch (arena_.index(type)) {
      case 2: case 3: add("@autoclosure "); break;
      case 4: add("@convention(block) "); break;
      case 5: add("@convention(c) "); break;
      case 6: add("@convention(thin) "); break;
      case 7: add("@called(once) "); break;
      default: break;
    }
  }
  printFunctionParams(type, labels, full_ || !entity);
  if (entity && !full_) return;
  if (asyncAttr != kNoNode) add(" async");
  if (throwsAttr != kNoNode) {
    add(" throws");
    if (arena_.child(throwsAttr, 0) != kNoNode) {
      add('(');
      printType(arena_.child(throwsAttr, 0));
      add(')');
    }
  }
  add(" -> ");
  if (sendingAttr != kNoNode) add("transferring ");
  NodeId result = arena_.child(type, 1);
  if (arena_.kind(result) == NodeKind::EmptyList) add("()");
  else printType(result);
}

void Printer::printType(NodeId id) {
  if (failed_ || id == kNoNode) return;
  // Types nest through each other as well as through print().
  if (depth_ > kMaxPrintDepth) {
    failed_ = true;
    return;
  }
  ++depth_;
  printTypeBody(id);
  --depth_;
}

void Printer::printTypeBody(NodeId id) {
  NodeKind kind = arena_.kind(id);
  switch (kind) {
    case NodeKind::Class: case NodeKind::Structure: case NodeKind::Enum: case NodeKind::Protocol:
    case NodeKind::TypeAlias: case NodeKind::OtherNominalType:
      printEntity(id);
      return;
    case NodeKind::BoundGeneric: printBoundGeneric(id); return;
    case NodeKind::EmptyList: add("()"); return;
    case NodeKind::Tuple: printTuple(id); return;
    case NodeKind::FunctionType:
      printFunctionType(id, kNoNode, false);
      return;
    case NodeKind::ImplFunctionType: printImplFunctionType(id); return;
    case NodeKind::BuiltinType:
      add(arena_.text(id));
      if (arena_.index(id)) addNumber(arena_.index(id));
      return;
    case NodeKind::BuiltinVector: {
      add("Builtin.Vec");
      addNumber(arena_.index(id));
      add('x');
      std::size_t start = out_.size();
      printType(arena_.child(id, 0));
      if (out_.compare(start, 8, "Builtin.") == 0) out_.erase(start, 8);
      return;
    }
    case NodeKind::BuiltinFixedArray:
      add("Builtin.FixedArray<");
      printType(arena_.child(id, 0));
      add(", ");
      printType(arena_.child(id, 1));
      add('>');
      return;
    case NodeKind::BuiltinBorrow:
      add("Builtin.Borrow<");
      printType(arena_.child(id, 0));
      add('>');
      return;
    case NodeKind::IntegerType:
      add(arena_.text(id));
      addNumber(arena_.index(id) + (arena_.text(id) == "-" ? 0 : 0));
      return;
    case NodeKind::MetatypeType:
    case NodeKind::ExistentialMetatype: {
      if (!arena_.text(id).empty()) {
        add(arena_.text(id));
        add(' ');
      }
      NodeId inner = arena_.child(id, 0);
      bool parens = arena_.kind(inner) == NodeKind::FunctionType;
      if (parens) add('(');
      printType(inner);
      if (parens) add(')');
      add(".Type");
      return;
    }
    case NodeKind::ProtocolList: {
      std::uint32_t count = arena_.childCount(id);
      if (count == 0) add("Any");
      for (std::uint32_t i = 0; i < count; ++i) {
        if (i) add(" & ");
        printType(arena_.child(id, i));
      }
      return;
    }
    case NodeKind::ProtocolListWithClass:
      printType(arena_.child(id, 1));
      if (arena_.childCount(arena_.child(id, 0))) {
        add(" & ");
        printType(arena_.child(id, 0));
      }
      return;
    case NodeKind::ProtocolListWithAnyObject:
      if (arena_.childCount(arena_.child(id, 0))) {
        printType(arena_.child(id, 0));
        add(" & ");
      }
      add("AnyObject");
      return;
    case NodeKind::ConstrainedExistential: {
      add("any ");
      printType(arena_.child(id, 0));
      add('<');
      NodeId requirements = arena_.child(id, 1);
      for (std::uint32_t i = 0; i < arena_.childCount(requirements); ++i) {
        if (i) add(", ");
        printRequirement(arena_.child(requirements, i));
      }
      add('>');
      return;
    }
    case NodeKind::InOut: add("inout "); printType(arena_.child(id, 0)); return;
    case NodeKind::Shared: add("__shared "); printType(arena_.child(id, 0)); return;
    case NodeKind::Owned: add("__owned "); printType(arena_.child(id, 0)); return;
    case NodeKind::Sending: add("transferring "); printType(arena_.child(id, 0)); return;
    case NodeKind::Isolated: add("isolated "); printType(arena_.child(id, 0)); return;
    case NodeKind::CompileTimeConst: add("_const "); printType(arena_.child(id, 0)); return;
    case NodeKind::NoDerivative: add("@noDerivative "); printType(arena_.child(id, 0)); return;
    case NodeKind::LifetimeDependence:
      add("lifetime dependence: ");
      add(arena_.text(id));
      add(' ');
      printType(arena_.child(id, 0));
      return;
    case NodeKind::ReferenceStorage:
      add(arena_.text(id));
      add(' ');
      printType(arena_.child(id, 0));
      return;
    case NodeKind::DynamicSelf: add("Self"); return;
    case NodeKind::ErrorType: add("<ERROR TYPE>"); return;
    case NodeKind::GenericParam: printGenericParamName(arena_.index(id)); return;
    case NodeKind::DependentMember:
      printType(arena_.child(id, 0));
      add('.');
      print(arena_.child(id, 1));
      return;
    case NodeKind::DependentGenericType: {
      printGenericSignature(arena_.child(id, 0));
      NodeId inner = arena_.child(id, 1);
      if (inner != kNoNode && arena_.kind(inner) != NodeKind::FunctionType) add(' ');
      printType(inner);
      return;
    }
    case NodeKind::PackType:
      add("Pack{");
      for (std::uint32_t i = 0; i < arena_.childCount(id); ++i) {
        if (i) add(", ");
        printType(arena_.child(id, i));
      }
      add('}');
      return;
    case NodeKind::PackExpansion: add("repeat "); printType(arena_.child(id, 0)); return;
    case NodeKind::OpaqueType:
      add("<<opaque return type of ");
      print(arena_.child(arena_.child(id, 0), 0));
      add(">>.");
      addNumber(arena_.index(id));
      return;
    case NodeKind::OpaqueReturnTypeRef: add("some"); return;
    case NodeKind::OpaqueReturnTypeOf:
      add("<<opaque return type of ");
      print(arena_.child(id, 0));
      add(">>");
      return;
    case NodeKind::SILBox:
      add("@box ");
      printType(arena_.child(id, 0));
      return;
    case NodeKind::SILBoxGeneric: {
      printGenericSignature(arena_.child(id, 1));
      add(" { ");
      NodeId fields = arena_.child(id, 0);
      for (std::uint32_t i = 0; i < arena_.childCount(fields); ++i) {
        if (i) add(", ");
        // A mutable field is mangled as inout.
        NodeId field = arena_.child(arena_.child(fields, i), 0);
        bool mutableField = arena_.kind(field) == NodeKind::InOut;
        add(mutableField ? "var " : "let ");
        printType(mutableField ? arena_.child(field, 0) : field);
      }
      add(" } <");
      NodeId args = arena_.child(id, 2);
      for (std::uint32_t i = 0; i < arena_.childCount(args); ++i) {
        if (i) add(", ");
        printTupleElement(arena_.child(args, i));
      }
      add('>');
      return;
    }
    default:
      print(id);
  }
}

void Printer::printGenericParamName(std::uint64_t packed) {
  std::uint64_t depth = packed >> 32, index = packed & 0xffffffffu;
  if (depth == 0xffff) {
    add("Self");
    return;
  }
  do {
    add(static_cast<char>('A' + index % 26));
    index /= 26;
  } while (index);
  if (depth) addNumber(depth);
}

void Printer::printGenericSignature(NodeId id) {
  std::uint32_t n = arena_.childCount(id);
  std::uint32_t depth = 0;
  std::vector<bool> packs;
  for (std::uint32_t i = 0; i < n; ++i) {
    NodeId child = arena_.child(id, i);
    if (arena_.kind(child) == NodeKind::GenericParamPack) packs.push_back(true);
  }
  for (; depth < n && arena_.kind(arena_.child(id, depth)) == NodeKind::GenericParamCount; ++depth) {
    add(depth == 0 ? "<" : "><");
    std::uint64_t count = arena_.index(arena_.child(id, depth));
    for (std::uint64_t index = 0; index < count; ++index) {
      if (index) add(", ");
      if (index >= 128) {
        add("...");
        break;
      }
      for (std::uint32_t i = depth; i < n; ++i) {
        NodeId child = arena_.child(id, i);
        if (arena_.kind(child) == NodeKind::GenericParamPack &&
            arena_.index(arena_.child(child, 0)) == (std::uint64_t{depth} << 32 | index))
          add("each ");
      }
      printGenericParamName(std::uint64_t{depth} << 32 | index);
    }
  }
  if (depth == 0) add('<');
  bool first = true;
  if (full_) {
    for (std::uint32_t i = depth; i < n; ++i) {
      NodeId child = arena_.child(id, i);
      if (arena_.kind(child) == NodeKind::GenericParamPack) continue;
      add(first ? " where " : ", ");
      first = false;
      printRequirement(child);
    }
  }
  add('>');
}

void Printer::printRequirement(NodeId id) {
  NodeKind kind = arena_.kind(id);
  printType(arena_.child(id, 0));
  switch (kind) {
    case NodeKind::RequirementConformance:
    case NodeKind::RequirementBaseClass:
      add(": ");
      printType(arena_.child(id, 1));
      return;
    case NodeKind::RequirementSameType:
      add(" == ");
      printType(arena_.child(id, 1));
      return;
    case NodeKind::RequirementSameShape:
      add(".shape == ");
      printType(arena_.child(id, 1));
      add(".shape");
      return;
    case NodeKind::RequirementLayout: {
      add(": ");
      add(arena_.text(id));
      std::uint64_t packed = arena_.index(id);
      if (packed >> 63) {
        add('(');
        addNumber((packed >> 32) & 0x7fffffff);
        if ((packed & 0xffffffffu) != 0xffffffffu) {
          add(", ");
          addNumber(packed & 0xffffffffu);
        }
        add(')');
      }
      return;
    }
    case NodeKind::RequirementInverse: {
      add(": ~Swift.");
      std::uint64_t bit = arena_.index(id);
      if (bit == 0) add("Copyable");
      else if (bit == 1) add("Escapable");
      else {
        add("<bit ");
        addNumber(bit);
        add('>');
      }
      return;
    }
    default:
      return;
  }
}

void Printer::printConformance(NodeId id) {
  if (arena_.kind(id) != NodeKind::ProtocolConformance) {
    print(id);
    return;
  }
  NodeId signature = kNoNode, module = kNoNode;
  for (std::uint32_t i = 2; i < arena_.childCount(id); ++i) {
    NodeId child = arena_.child(id, i);
    if (arena_.kind(child) == NodeKind::GenericSignature) signature = child;
    else module = child;
  }
  if (signature != kNoNode && full_) {
    printGenericSignature(signature);
    add(' ');
  }
  printType(arena_.child(id, 0));
  if (!full_) return;
  add(" : ");
  printType(arena_.child(id, 1));
  if (module != kNoNode) {
    add(" in ");
    add(arena_.text(module));
  }
}

void Printer::printSpecialization(NodeId id) {
  std::uint32_t n = arena_.childCount(id);
  NodeId global = arena_.child(id, n - 1);
  if (!full_) {
    add("specialized ");
    print(global);
    return;
  }
  add(arena_.text(id));
  add(" <");
  bool first = true;
  if (arena_.index(id) & 1) {
    add("serialized");
    first = false;
  }
  for (std::uint32_t i = 0; i + 1 < n; ++i) {
    if (!first) add(", ");
    first = false;
    printType(arena_.child(id, i));
  }
  add("> of ");
  print(global);
}

}  // namespace symlift::demangle::swift
