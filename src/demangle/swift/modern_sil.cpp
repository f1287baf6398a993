// Function signature specializations ('Tf') and SIL function types ('I').

#include "demangle/swift/modern_parser.h"

namespace symlift::demangle::swift {

bool ModernParser::parseFunctionSignatureSpecialization() {
  std::uint64_t flags = 0;
  if (in_.nextIf('q')) flags |= 1;
  if (in_.nextIf('a')) flags |= 4;
  if (in_.nextIf('r')) flags |= 2;
  if (!Cursor::isDigit(in_.next())) return false;
  // Each parameter's description; the operands some take (closure names,
  // constants) were pushed before 'Tf', in parameter order.
  struct Param {
    std::string_view code;
    std::size_t operands = 0;
    bool takesTypes = false;
    std::vector<NodeId> payload;
  };
  std::vector<Param> params;
  bool returnPart = false;
  while (!in_.atEnd() && !returnPart) {
    if (in_.nextIf('_')) {
      returnPart = true;
      break;
    }
    std::size_t start = in_.position();
    Param param;
    char c = in_.next();
    switch (c) {
      case 'n': case 'x': case 'i': case 's': case 'r': break;
      case 'c': case 'E': param.operands = 1; param.takesTypes = true; break;
      case 'C': { std::uint64_t n = 0; if (!in_.natural(n)) return false; break; }
      case 'e': in_.nextIf('D'); in_.nextIf('G'); in_.nextIf('X'); break;
      case 'd': in_.nextIf('G'); in_.nextIf('X'); break;
      case 'g': case 'o': in_.nextIf('X'); break;
      case 'p': {
        char p = in_.next();
        switch (p) {
          case 'f': case 'g': param.operands = 1; break;
          case 'i': case 'd': { in_.nextIf('n'); std::uint64_t n = 0; if (!in_.natural(n)) return false; break; }
          case 's': { char e = in_.next(); if (e != 'b' && e != 'w' && e != 'c') return false; param.operands = 1; break; }
          case 'k': param.operands = 3; break;
          case 'S': {
            param.operands = 1;
            for (;;) {
              if (in_.peek() == 'S') { in_.next(); ++param.operands; continue; }
              if ((in_.peek() == 'i' || in_.peek() == 'd') && Cursor::isDigit(in_.peek(1))) {
                in_.next();
                std::uint64_t n = 0;
                if (!in_.natural(n)) return false;
                continue;
              }
              break;
            }
            break;
          }
          default: return false;
        }
        break;
      }
      default: return false;
    }
    param.code = in_.text().substr(start, in_.position() - start);
    params.push_back(param);
    if (params.size() > 256) return false;
  }
  if (returnPart) {
    char r = in_.next();
    if (r != 'n' && r != 'd' && r != 'g' && r != 'x') return false;
  }
  for (auto it = params.rbegin(); it != params.rend(); ++it) {
    if (it->takesTypes) {
      while (!stack_.empty() && isType(arena_.kind(stack_.back())) && stack_.size() > 1)
        it->payload.insert(it->payload.begin(), pop());
    }
    for (std::size_t i = 0; i < it->operands; ++i) {
      NodeId operand = pop();
      if (operand == kNoNode) return false;
      it->payload.insert(it->payload.begin(), operand);
    }
  }
  NodeId global = pop();
  if (global == kNoNode) return false;
  std::vector<NodeId> children;
  for (std::size_t i = 0; i < params.size(); ++i) {
    NodeId param = arena_.makeText(NodeKind::FuncSigParam, params[i].code, params[i].payload);
    arena_.setIndex(param, i);
    children.push_back(param);
  }
  children.push_back(global);
  push(arena_.make(NodeKind::FunctionSigSpecialization, children));
  arena_.setIndex(stack_.back(), flags);
  return true;
}

namespace {
bool isParamConvention(char c) { return std::string_view("iclbnXxygevpm").find(c) != std::string_view::npos; }
bool isResultConvention(char c) { return std::string_view("rodauklgm").find(c) != std::string_view::npos; }
}  // namespace

bool ModernParser::parseImplFunctionType() {
  // Attributes, then one convention letter per parameter, result, yield and
  // error; the types themselves were pushed before 'I', in that order.
  std::string attributes;
  bool patternSubs = in_.nextIf('s');
  bool invocationSubs = in_.nextIf('I');
  if (in_.nextIf('P')) attributes += "P";
  if (in_.nextIf('e')) attributes += "e";
  char isolation = (in_.peek() == 'A' || in_.peek() == 'N') ? in_.next() : 0;
  in_.nextIf('O');
  char differentiability = std::string_view("dlfr").find(in_.peek()) != std::string_view::npos ? in_.next() : 0;
  char callee = in_.next();
  if (std::string_view("ygxt").find(callee) == std::string_view::npos || callee == 0) return false;
  char representation = 0;
  if (in_.nextIf('z')) {
    representation = in_.next();
    std::uint64_t length = 0;
    if (!in_.natural(length) || in_.take(length).size() != length) return false;
  } else if (std::string_view("BCMJKVW").find(in_.peek()) != std::string_view::npos && in_.peek() != 0) {
    representation = in_.next();
  }
  char coroutine = std::string_view("AIG").find(in_.peek()) != std::string_view::npos && in_.peek() ? in_.next() : 0;
  bool sendable = in_.nextIf('h');
  bool async = in_.nextIf('H');
  bool sendingResult = in_.nextIf('T');
  struct Slot {
    NodeKind kind;
    char convention;
    std::string flags;
  };
  std::vector<Slot> slots;
  while (isParamConvention(in_.peek()) && in_.peek()) {
    Slot slot{NodeKind::ImplParameter, in_.next(), {}};
    for (;;) {
      if (in_.nextIf('w')) slot.flags += 'w';
      else if (in_.nextIf('T')) slot.flags += 'T';
      else if (in_.nextIf('I')) slot.flags += 'I';
      else if (in_.nextIf('L')) slot.flags += 'L';
      else break;
    }
    slots.push_back(slot);
  }
  while (isResultConvention(in_.peek()) && in_.peek()) {
    Slot slot{NodeKind::ImplResult, in_.next(), {}};
    if (in_.nextIf('w')) slot.flags += 'w';
    slots.push_back(slot);
  }
  while (in_.nextIf('Y')) {
    char c = in_.next();
    if (!isParamConvention(c)) return false;
    slots.push_back({NodeKind::ImplYield, c, {}});
  }
  if (in_.nextIf('z')) {
    char c = in_.next();
    if (!isResultConvention(c)) return false;
    slots.push_back({NodeKind::ImplErrorResult, c, {}});
  }
  if (!in_.nextIf('_')) return false;

  NodeId substitutions = kNoNode;
  if (patternSubs || invocationSubs) {
    while (topIs(NodeKind::RetroactiveConformance)) pop();
    std::vector<NodeId> types;
    for (;;) {
      NodeId top = pop();
      if (top == kNoNode) return false;
      if (arena_.kind(top) == NodeKind::EmptyList) break;
      if (arena_.kind(top) == NodeKind::FirstElementMarker) continue;
      types.insert(types.begin(), top);
    }
    substitutions = arena_.make(NodeKind::ImplSubstitutions, types);
  }
  NodeId patternSignature = patternSubs ? popIfKind(NodeKind::GenericSignature) : kNoNode;
  NodeId signature = popIfKind(NodeKind::GenericSignature);
  std::vector<NodeId> children(slots.size(), kNoNode);
  for (std::size_t i = slots.size(); i-- > 0;) {
    NodeId type = popType();
    if (type == kNoNode) return false;
    NodeId slot = arena_.makeText(slots[i].kind, in_.text().substr(0, 0), std::span<const NodeId>(&type, 1));
    arena_.setIndex(slot, static_cast<std::uint64_t>(static_cast<unsigned char>(slots[i].convention)) |
                              (slots[i].flags.find('w') != std::string::npos ? 0x100u : 0u) |
                              (slots[i].flags.find('T') != std::string::npos ? 0x200u : 0u));
    children[i] = slot;
  }
  // Attribute letters travel in the node's index, one byte each.
  std::uint64_t packed = static_cast<unsigned char>(callee);
  packed |= std::uint64_t{static_cast<unsigned char>(representation)} << 8;
  packed |= std::uint64_t{static_cast<unsigned char>(coroutine)} << 16;
  packed |= std::uint64_t{static_cast<unsigned char>(differentiability)} << 24;
  packed |= std::uint64_t{static_cast<unsigned char>(isolation)} << 32;
  if (attributes.find('e') != std::string::npos) packed |= std::uint64_t{1} << 40;
  if (sendable) packed |= std::uint64_t{1} << 41;
  if (async) packed |= std::uint64_t{1} << 42;
  if (sendingResult) packed |= std::uint64_t{1} << 43;
  if (signature != kNoNode) children.push_back(signature);
  if (patternSignature != kNoNode) {
    children.push_back(arena_.make(NodeKind::ImplPatternSubstitutions, {patternSignature}));
  }
  if (substitutions != kNoNode) children.push_back(substitutions);
  NodeId type = arena_.make(NodeKind::ImplFunctionType, children);
  arena_.setIndex(type, packed);
  push(type);
  return true;
}

}  // namespace symlift::demangle::swift
