// Declarations of the current mangling: functions, variables, subscripts,
// accessors, initializers and closures, and generic arguments bound to them.

#include "demangle/swift/modern_parser.h"

namespace symlift::demangle::swift {

namespace {

// How many parameters a function type has: its labels are popped by count.
std::size_t parameterCount(const NodeArena& arena, NodeId type) {
  if (type == kNoNode) return 0;
  if (arena.kind(type) == NodeKind::DependentGenericType) type = arena.child(type, 1);
  if (type == kNoNode || arena.kind(type) != NodeKind::FunctionType) return 0;
  NodeId params = arena.child(type, 0);
  if (params == kNoNode) return 0;
  switch (arena.kind(params)) {
    case NodeKind::EmptyList: return 0;
    case NodeKind::Tuple: return arena.childCount(params);
    default: return 1;
  }
}

}  // namespace

// Labels sit on the stack between the name and the type: one identifier or
// '_' per parameter, or a single 'y' for "no labels at all". Names from
// before labels were mangled this way carry none; they are recognised by
// the stack not holding a name and a context below that many labels.
static NodeId popLabels(NodeArena& arena, std::vector<NodeId>& stack, NodeId type, bool named = true) {
  if (!stack.empty() && arena.kind(stack.back()) == NodeKind::EmptyList) {
    stack.pop_back();
    return arena.make(NodeKind::LabelList);
  }
  std::size_t count = parameterCount(arena, type);
  std::size_t under = named ? 2 : 1;  // a name (if any) and a context below the labels
  if (count == 0 || stack.size() < count + under) return kNoNode;
  for (std::size_t i = 0; i < count; ++i) {
    NodeKind kind = arena.kind(stack[stack.size() - 1 - i]);
    if (kind != NodeKind::Identifier && kind != NodeKind::FirstElementMarker) return kNoNode;
  }
  if (named && !isDeclName(arena.kind(stack[stack.size() - 1 - count]))) return kNoNode;
  NodeKind below = arena.kind(stack[stack.size() - under - count]);
  if (!isContext(below) && below != NodeKind::Identifier) return kNoNode;
  std::vector<NodeId> labels(stack.end() - static_cast<std::ptrdiff_t>(count), stack.end());
  stack.resize(stack.size() - count);
  return arena.make(NodeKind::LabelList, labels);
}

bool ModernParser::parseFunctionSignature(unsigned convention) {
  std::vector<NodeId> attributes;
  while (topIs(NodeKind::FunctionAttr)) attributes.insert(attributes.begin(), pop());
  NodeId params = pop();
  NodeId result = pop();
  if (params == kNoNode || result == kNoNode) return false;
  NodeKind pk = arena_.kind(params), rk = arena_.kind(result);
  if ((pk != NodeKind::EmptyList && !isType(pk)) || (rk != NodeKind::EmptyList && !isType(rk))) return false;
  std::vector<NodeId> children{params, result};
  children.insert(children.end(), attributes.begin(), attributes.end());
  NodeId type = arena_.make(NodeKind::FunctionType, children);
  arena_.setIndex(type, convention);
  push(type);
  return true;
}

bool ModernParser::parseFunctionEntity() {
  NodeId signature = popIfKind(NodeKind::GenericSignature);
  if (!parseFunctionSignature(0)) return false;
  NodeId type = pop();
  if (signature != kNoNode) type = arena_.make(NodeKind::DependentGenericType, {signature, type});
  NodeId labels = popLabels(arena_, stack_, type);
  NodeId name = popDeclName();
  NodeId context = popContext();
  if (name == kNoNode || context == kNoNode) return false;
  push(labels == kNoNode ? arena_.make(NodeKind::Function, {context, name, type})
                         : arena_.make(NodeKind::Function, {context, name, type, labels}));
  return true;
}

bool ModernParser::parseVariable() {
  NodeId type = popType();
  if (type == kNoNode) return false;
  NodeId labels = kNoNode;
  if (arena_.kind(type) == NodeKind::FunctionType || arena_.kind(type) == NodeKind::DependentGenericType)
    labels = popLabels(arena_, stack_, type);
  NodeId name = popDeclName();
  NodeId context = popContext();
  if (name == kNoNode || context == kNoNode) return false;
  NodeId variable = arena_.make(NodeKind::Variable, {context, name, type});
  (void)labels;
  // Swift 4.0 mangled a variable without accessor ('v'; "vWvd" is its field
  // offset) and the accessors with 'f'; 4.1 already used 'v' accessors.
  if (swift4_ && (!isAccessorLetter(in_.peek()) || (in_.peek() == 'W' && in_.peek(1) == 'v'))) {
    push(variable);
    return true;
  }
  return parseAccessor(variable);
}

bool ModernParser::isAccessorLetter(char c) {
  return c != 0 && std::string_view("msgGwWrMxybzipal").find(c) != std::string_view::npos;
}

// Swift 4.0: decl-name type 'f' ACCESSOR, a subscript being named so.
bool ModernParser::parseSwift4Accessor() {
  NodeId type = popType();
  NodeId name = popDeclName();
  NodeId context = popContext();
  if (type == kNoNode || name == kNoNode || context == kNoNode) return false;
  NodeKind typeKind = arena_.kind(type);
  bool subscript = arena_.kind(name) == NodeKind::Identifier && arena_.text(name) == "subscript" &&
                   (typeKind == NodeKind::FunctionType || typeKind == NodeKind::DependentGenericType);
  NodeId storage = subscript ? arena_.make(NodeKind::Subscript, {context, type})
                             : arena_.make(NodeKind::Variable, {context, name, type});
  return parseAccessor(storage);
}

bool ModernParser::parseSubscript() {
  NodeId discriminator = popIfKind(NodeKind::PrivateDeclName);
  NodeId type = popType();
  if (type == kNoNode) return false;
  NodeId labels = popLabels(arena_, stack_, type, false);
  NodeId context = popContext();
  if (context == kNoNode) return false;
  std::vector<NodeId> children{context, type};
  if (labels != kNoNode) children.push_back(labels);
  if (discriminator != kNoNode) children.push_back(discriminator);
  return parseAccessor(arena_.make(NodeKind::Subscript, children));
}

bool ModernParser::parseAccessor(NodeId storage) {
  const char* name = nullptr;
  switch (in_.next()) {
    case 'm': name = "materializeForSet"; break;
    case 's': name = "setter"; break;
    case 'g': name = "getter"; break;
    case 'G': name = "globalGetter"; break;
    case 'w': name = "willset"; break;
    case 'W': name = "didset"; break;
    case 'r': name = "read"; break;
    case 'M': name = "modify"; break;
    case 'x': name = "yielding_mutate"; break;
    case 'y': name = "yielding_borrow"; break;
    case 'b': name = "borrow"; break;
    case 'z': name = "mutate"; break;
    case 'i': name = "init"; break;
    case 'p': push(storage); return true;
    case 'a':
    case 'l': {
      bool mutableAddressor = in_.text()[in_.position() - 1] == 'a';
      switch (in_.next()) {
        case 'u': name = mutableAddressor ? "unsafeMutableAddressor" : "unsafeAddressor"; break;
        case 'O': name = mutableAddressor ? "owningMutableAddressor" : "owningAddressor"; break;
        case 'o': name = mutableAddressor ? "nativeOwningMutableAddressor" : "nativeOwningAddressor"; break;
        case 'p': name = mutableAddressor ? "nativePinningMutableAddressor" : "nativePinningAddressor"; break;
        default: return false;
      }
      break;
    }
    default: return false;
  }
  push(arena_.makeText(NodeKind::Accessor, name, std::span<const NodeId>(&storage, 1)));
  return true;
}

bool ModernParser::parseF() {
  if (swift4_ && std::string_view("msgGwWrMal").find(in_.peek()) != std::string_view::npos && in_.peek())
    return parseSwift4Accessor();
  char c = in_.next();
  switch (c) {
    case 'C':
    case 'c': {
      NodeId discriminator = popIfKind(NodeKind::PrivateDeclName);
      NodeId type = popType();
      if (type == kNoNode) return false;
      NodeId labels = popLabels(arena_, stack_, type, false);
      NodeId context = popContext();
      if (context == kNoNode) return false;
      std::vector<NodeId> children{context, type};
      if (labels != kNoNode) children.push_back(labels);
      if (discriminator != kNoNode) children.push_back(discriminator);
      push(arena_.make(c == 'C' ? NodeKind::Allocator : NodeKind::Constructor, children));
      return true;
    }
    case 'U':
    case 'u': {
      NodeId type = popType();
      NodeId context = popContext();
      std::uint64_t index = 0;
      if (type == kNoNode || context == kNoNode || !in_.index(index)) return false;
      push(arena_.makeIndex(c == 'U' ? NodeKind::ExplicitClosure : NodeKind::ImplicitClosure, index,
                            {context, type}));
      return true;
    }
    case 'A': {
      NodeId context = popContext();
      std::uint64_t index = 0;
      if (context == kNoNode || !in_.index(index)) return false;
      push(arena_.makeIndex(NodeKind::DefaultArgumentInitializer, index, {context}));
      return true;
    }
    case 'D': case 'Z': case 'd': case 'E': case 'e': case 'i': case 'P': case 'F': case 'W': {
      NodeId context = popContext();
      if (context == kNoNode) return false;
      NodeKind kind = c == 'D'   ? NodeKind::Deallocator
                      : c == 'Z' ? NodeKind::IsolatedDeallocator
                      : c == 'd' ? NodeKind::Destructor
                      : c == 'E' ? NodeKind::IVarDestroyer
                      : c == 'e' ? NodeKind::IVarInitializer
                      : c == 'i' ? NodeKind::Initializer
                      : c == 'P' ? NodeKind::PropertyWrapperBackingInitializer
                      : c == 'F' ? NodeKind::PropertyWrappedFieldInitAccessor
                                 : NodeKind::PropertyWrapperInitFromProjectedValue;
      push(arena_.make(kind, {context}));
      return true;
    }
    case 'p': {
      NodeId type = popType();
      NodeId name = popDeclName();
      NodeId context = popContext();
      if (type == kNoNode || name == kNoNode || context == kNoNode) return false;
      push(arena_.make(NodeKind::GenericTypeParamDecl, {context, name}));
      return true;
    }
    case 'M': return parseMacroExpansion();
    case 'm': {
      // A macro: printed like a function or a variable of its type.
      NodeId signature = popIfKind(NodeKind::GenericSignature);
      NodeId type = popType();
      if (type == kNoNode) return false;
      if (signature != kNoNode) type = arena_.make(NodeKind::DependentGenericType, {signature, type});
      NodeId labels = popLabels(arena_, stack_, type);
      NodeId name = popDeclName();
      NodeId context = popContext();
      if (name == kNoNode || context == kNoNode) return false;
      bool function = arena_.kind(type) == NodeKind::FunctionType || arena_.kind(type) == NodeKind::DependentGenericType;
      if (function)
        push(labels == kNoNode ? arena_.make(NodeKind::Function, {context, name, type})
                               : arena_.make(NodeKind::Function, {context, name, type, labels}));
      else
        push(arena_.make(NodeKind::Variable, {context, name, type}));
      return true;
    }
    default:
      return false;
  }
}

// context [file-discriminator] [decl-name] macro-name 'fM' kind INDEX. The
// node's children: context, macro name, attached-to name or kNoNode, file
// discriminator or kNoNode.
bool ModernParser::parseMacroExpansion() {
  char kind = in_.next();
  if (std::string_view("armpceqbfu").find(kind) == std::string_view::npos || kind == 0) return false;
  NodeId macro = popIfKind(NodeKind::Identifier);
  if (macro == kNoNode) return false;
  NodeId attachedTo = kNoNode;
  if (kind != 'f' && kind != 'u') {
    attachedTo = popDeclName();
    if (attachedTo == kNoNode) return false;
  }
  NodeId discriminator = popIfKind(NodeKind::PrivateDeclName);
  NodeId context = popContext();
  std::uint64_t index = 0;
  if (context == kNoNode || !in_.index(index)) return false;
  // The kind letter travels in the index's top byte (INDEX is far smaller).
  NodeId node = arena_.makeIndex(NodeKind::MacroExpansion,
                                 index | std::uint64_t{static_cast<unsigned char>(kind)} << 56,
                                 {context, macro, attachedTo, discriminator});
  push(node);
  return true;
}

bool ModernParser::parseBoundGeneric() {
  while (topIs(NodeKind::RetroactiveConformance)) pop();
  // Argument lists, one per nesting level, outermost first; '_' ends all
  // but the last, 'y' starts the first.
  std::vector<NodeId> lists;
  std::vector<NodeId> current;
  for (;;) {
    NodeId top = pop();
    if (top == kNoNode) return false;
    NodeKind kind = arena_.kind(top);
    if (kind == NodeKind::EmptyList || kind == NodeKind::FirstElementMarker) {
      std::vector<NodeId> ordered(current.rbegin(), current.rend());
      lists.insert(lists.begin(), arena_.make(NodeKind::TypeList, ordered));
      current.clear();
      if (kind == NodeKind::EmptyList) break;
      continue;
    }
    if (!isType(kind)) return false;
    current.push_back(top);
  }
  NodeId nominal = popType();
  if (nominal == kNoNode) return false;
  bool anyArgument = false;
  for (NodeId list : lists) anyArgument = anyArgument || arena_.childCount(list) > 0;
  if (!anyArgument) return false;
  std::size_t next = lists.size();
  NodeId bound = bindGenericArgs(nominal, lists, next);
  if (bound == kNoNode) return false;
  push(bound);
  addSubstitution(bound);
  return true;
}

// Gives each generic level of nominal, innermost first, its argument list.
NodeId ModernParser::bindGenericArgs(NodeId node, std::vector<NodeId>& lists, std::size_t& next) {
  if (++steps_ > kMaxSteps) return kNoNode;
  NodeKind kind = arena_.kind(node);
  if (kind == NodeKind::Static || kind == NodeKind::Accessor) {
    NodeId inner = bindGenericArgs(arena_.child(node, 0), lists, next);
    return inner == kNoNode ? kNoNode : arena_.withChild(node, 0, inner);
  }
  if (kind == NodeKind::Extension) {
    NodeId inner = bindGenericArgs(arena_.child(node, 1), lists, next);
    return inner == kNoNode ? kNoNode : arena_.withChild(node, 1, inner);
  }
  if (kind == NodeKind::BoundGeneric || kind == NodeKind::Module || !isContext(kind) || next == 0) return node;
  NodeId list = lists[--next];
  NodeId context = arena_.child(node, 0);
  NodeId result = node;
  if (context != kNoNode && next > 0) {
    NodeId bound = bindGenericArgs(context, lists, next);
    if (bound == kNoNode) return kNoNode;
    if (bound != context) result = arena_.withChild(node, 0, bound);
  }
  if (arena_.childCount(list) == 0) return result;
  return arena_.make(NodeKind::BoundGeneric, {result, list});
}

}  // namespace symlift::demangle::swift
