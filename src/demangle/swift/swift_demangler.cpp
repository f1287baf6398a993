#include "demangle/swift/swift_demangler.h"

#include "demangle/swift/modern_parser.h"
#include "demangle/swift/old_parser.h"
#include "demangle/swift/printer.h"

namespace symlift::demangle::swift {

namespace {

// Longer names are not symbols a compiler made; refusing them bounds the
// work for one name.
constexpr std::size_t kMaxNameLength = 8192;

enum class Generation { None, Modern, Swift4, Old, AsyncMain };

// The body after the prefix, and which mangling it is in.
Generation classify(std::string_view& name) {
  // One extra underscore is how Mach-O symbol tables spell C-level names.
  auto strip = [&](std::string_view prefix) {
    if (name.substr(0, prefix.size()) == prefix) {
      name.remove_prefix(prefix.size());
      return true;
    }
    return false;
  };
  for (std::string_view prefix : {"_$s", "$s", "_$S", "$S", "_$e", "$e", "@__swiftmacro_"}) {
    if (strip(prefix)) return Generation::Modern;
  }
  if (strip("__T0") || strip("_T0")) return Generation::Swift4;
  // The async entry point of top-level code has no prefix; what follows it
  // are the usual suffix operators of its funclets ("async_MainTY1_").
  if (strip("async_Main") || strip("_async_Main")) return Generation::AsyncMain;
  if (strip("__T") || strip("_T")) return Generation::Old;
  return Generation::None;
}

}  // namespace

bool isSwiftMangledName(std::string_view name) {
  std::string_view body = name;
  return classify(body) != Generation::None;
}

std::optional<std::string> demangle(std::string_view mangled, Form form) {
  if (mangled.size() > kMaxNameLength) return std::nullopt;
  std::string_view body = mangled;
  Generation generation = classify(body);
  if (generation == Generation::None || (body.empty() && generation != Generation::AsyncMain)) return std::nullopt;
  // One arena per thread, reused: after the first few names reading one
  // allocates nothing but the result.
  thread_local NodeArena arena;
  thread_local ParseBuffers buffers;
  arena.clear();
  NodeId global = kNoNode;
  if (generation == Generation::AsyncMain) {
    ModernParser parser(arena, buffers, body);
    global = parser.parse(arena.make(NodeKind::AsyncMainEntry));
  } else if (generation == Generation::Modern || generation == Generation::Swift4) {
    ModernParser parser(arena, buffers, body, generation == Generation::Swift4);
    global = parser.parse();
  } else {
    OldParser parser(arena, body);
    global = parser.parse();
  }
  if (global == kNoNode) return std::nullopt;
  std::string text;
  text.reserve(2 * body.size() + 32);
  Printer printer(arena, form, text);
  if (!printer.printGlobal(global) || text.empty()) return std::nullopt;
  return text;
}

}  // namespace symlift::demangle::swift
