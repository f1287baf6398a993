// Printing of SIL function types and function signature specializations.

#include "demangle/swift/printer.h"

namespace symlift::demangle::swift {

namespace {
const char* paramConvention(char c) {
  switch (c) {
    case 'i': return "@in"; case 'c': return "@in_constant"; case 'l': return "@inout";
    case 'b': return "@inout_aliasable"; case 'n': return "@in_guaranteed"; case 'X': return "@in_cxx";
    case 'x': return "@owned"; case 'y': return "@unowned"; case 'g': return "@guaranteed";
    case 'e': return "@deallocating"; case 'v': return "@pack_owned"; case 'p': return "@pack_guaranteed";
    case 'm': return "@pack_inout"; default: return "";
  }
}
const char* resultConvention(char c) {
  switch (c) {
    case 'r': return "@out"; case 'o': return "@owned"; case 'd': return "@unowned";
    case 'u': return "@unowned_inner_pointer"; case 'a': return "@autoreleased"; case 'k': return "@pack_out";
    case 'l': return "@guaranteed_address"; case 'g': return "@guaranteed"; case 'm': return "@inout";
    default: return "";
  }
}
}  // namespace

void Printer::printImplFunctionType(NodeId id) {
  std::uint64_t packed = arena_.index(id);
  char callee = static_cast<char>(packed & 0xff), repr = static_cast<char>((packed >> 8) & 0xff);
  char coroutine = static_cast<char>((packed >> 16) & 0xff), diff = static_cast<char>((packed >> 24) & 0xff);
  char isolation = static_cast<char>((packed >> 32) & 0xff);
  if (packed >> 40 & 1) add("@escaping ");
  if (isolation == 'A') add("@isolated(any) ");
  if (isolation == 'N') add("@caller_isolated ");
  if (diff == 'd') add("@differentiable ");
  if (diff == 'l') add("@differentiable(_linear) ");
  if (diff == 'f') add("@differentiable(_forward) ");
  if (diff == 'r') add("@differentiable(reverse) ");
  add(callee == 'y' ? "@callee_unowned " : callee == 'g' ? "@callee_guaranteed " : callee == 'x' ? "@callee_owned " : "@convention(thin) ");
  switch (repr) {
    case 'B': add("@convention(block) "); break;
    case 'C': add("@convention(c) "); break;
    case 'M': add("@convention(method) "); break;
    case 'J': add("@convention(objc_method) "); break;
    case 'K': add("@convention(closure) "); break;
    case 'V': add("@convention(com_method) "); break;
    case 'W': add("@convention(witness_method) "); break;
    default: break;
  }
  if (coroutine == 'A') add("@yield_once ");
  if (coroutine == 'I') add("@yield_once_2 ");
  if (coroutine == 'G') add("@yield_many ");
  if (packed >> 41 & 1) add("@Sendable ");
  if (packed >> 42 & 1) add("@async ");
  NodeId substitutions = kNoNode;
  for (std::uint32_t i = 0; i < arena_.childCount(id); ++i) {
    NodeId child = arena_.child(id, i);
    NodeKind kind = arena_.kind(child);
    if (kind == NodeKind::GenericSignature) {
      printGenericSignature(child);
      add(' ');
    } else if (kind == NodeKind::ImplPatternSubstitutions) {
      add("@substituted ");
      printGenericSignature(arena_.child(child, 0));
      add(' ');
    } else if (kind == NodeKind::ImplSubstitutions) {
      substitutions = child;
    }
  }
  auto printSlot = [&](NodeId slot, bool param) {
    std::uint64_t index = arena_.index(slot);
    char c = static_cast<char>(index & 0xff);
    NodeKind kind = arena_.kind(slot);
    if (kind == NodeKind::ImplYield) add("@yields ");
    if (kind == NodeKind::ImplErrorResult) add("@error ");
    add(param ? paramConvention(c) : resultConvention(c));
    add(' ');
    if (index & 0x100) add("@noDerivative ");
    if (index & 0x200) add("transferring ");
    printType(arena_.child(slot, 0));
  };
  add('(');
  bool first = true;
  for (std::uint32_t i = 0; i < arena_.childCount(id); ++i) {
    NodeId child = arena_.child(id, i);
    if (arena_.kind(child) != NodeKind::ImplParameter) continue;
    if (!first) add(", ");
    first = false;
    printSlot(child, true);
  }
  add(") -> ");
  if (packed >> 43 & 1) add("transferring ");
  add('(');
  first = true;
  for (std::uint32_t i = 0; i < arena_.childCount(id); ++i) {
    NodeId child = arena_.child(id, i);
    NodeKind kind = arena_.kind(child);
    if (kind != NodeKind::ImplResult && kind != NodeKind::ImplYield && kind != NodeKind::ImplErrorResult) continue;
    if (!first) add(", ");
    first = false;
    printSlot(child, kind == NodeKind::ImplYield);
  }
  add(')');
  if (substitutions != kNoNode) {
    add(" for <");
    printTypeList(substitutions, ", ");
    add('>');
  }
}

void Printer::printFunctionSigSpecialization(NodeId id) {
  std::uint32_t n = arena_.childCount(id);
  NodeId global = arena_.child(id, n - 1);
  if (!full_) {
    add("specialized ");
    print(global);
    return;
  }
  if ((arena_.index(id) & 2) && n == 1) {
    add("representation changed of ");
    print(global);
    return;
  }
  add("function signature specialization <");
  bool first = true;
  if (arena_.index(id) & 1) {
    add("serialized");
    first = false;
  }
  for (std::uint32_t i = 0; i + 1 < n; ++i) {
    NodeId param = arena_.child(id, i);
    if (arena_.text(param) == "n") continue;
    if (!first) add(", ");
    first = false;
    add("Arg[");
    addNumber(arena_.index(param));
    add("] = ");
    printFuncSigParam(param);
  }
  add("> of ");
  print(global);
}

void Printer::printFuncSigParam(NodeId id) {
  std::string_view code = arena_.text(id);
  char c = code.empty() ? 0 : code[0];
  switch (c) {
    case 'c': case 'E': {
      add(c == 'c' ? "[Closure Propagated : " : "[Escaping Closure Propagated : ");
      print(arena_.child(id, 0));
      add(", Argument Types : [");
      for (std::uint32_t i = 1; i < arena_.childCount(id); ++i) {
        if (i > 1) add(", ");
        printType(arena_.child(id, i));
      }
      add(']');
      return;
    }
    case 'C':
      add("[Same As Argument ");
      add(code.substr(1));
      add(']');
      return;
    case 'p': {
      char p = code.size() > 1 ? code[1] : 0;
      if (p == 'f' || p == 'g') {
        add(p == 'f' ? "[Constant Propagated Function : " : "[Constant Propagated Global : ");
        print(arena_.child(id, 0));
        add(']');
      } else if (p == 'i' || p == 'd') {
        add(p == 'i' ? "[Constant Propagated Integer : " : "[Constant Propagated Float : ");
        std::string_view value = code.substr(2);
        if (!value.empty() && value[0] == 'n') {
          add('-');
          value.remove_prefix(1);
        }
        add(value);
        add(']');
      } else if (p == 's') {
        add("[Constant Propagated String : ");
        char e = code.size() > 2 ? code[2] : 'b';
        add(e == 'b' ? "u8'" : e == 'w' ? "u16'" : "objc'");
        std::string_view text = arena_.text(arena_.child(id, 0));
        if (!text.empty() && text[0] == '_') text.remove_prefix(1);
        add(text);
        add("']");
      } else if (p == 'k') {
        add("[Constant Propagated KeyPath : ");
        print(arena_.child(id, 0));
        add('<');
        printType(arena_.child(id, 1));
        add(',');
        printType(arena_.child(id, 2));
        add(">]");
      } else if (p == 'S') {
        std::uint32_t type = 0;
        for (std::size_t i = 1; i < code.size(); ++i) {
          if (code[i] == 'S') {
            add("[Constant Propagated Struct : ");
            printType(arena_.child(id, type++));
            add(']');
          } else if (code[i] == 'i' || code[i] == 'd') {
            std::size_t end = i + 1;
            while (end < code.size() && code[end] >= '0' && code[end] <= '9') ++end;
            add(code[i] == 'i' ? "[Constant Propagated Integer : " : "[Constant Propagated Float : ");
            add(code.substr(i + 1, end - i - 1));
            add(']');
            i = end - 1;
          }
        }
      }
      return;
    }
    default: {
      bool first = true;
      auto part = [&](const char* text) {
        if (!first) add(" and ");
        first = false;
        add(text);
      };
      for (char k : code) {
        switch (k) {
          case 'd': part("Dead"); break;
          case 'g': case 'G': part("Owned To Guaranteed"); break;
          case 'o': part("Guaranteed To Owned"); break;
          case 'x': case 'X': part("Exploded"); break;
          case 'i': part("Value Promoted from Box"); break;
          case 's': part("Box To Stack"); break;
          case 'e': part("Generic"); break;
          case 'D': part("Dead"); break;
          case 'r': part("Sending"); break;
          default: break;
        }
      }
    }
  }
}

}  // namespace symlift::demangle::swift
