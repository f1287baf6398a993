#include "demangle/demangle.h"

#include <llvm/Demangle/Demangle.h>

#include "demangle/swift/swift_demangler.h"

#include <cstdlib>
#include <memory>

namespace symlift::demangle {

namespace {

// "_Z" after up to three further underscores ("___Z" marks a block
// invocation function).
bool looksItanium(std::string_view name) {
  std::size_t position = name.find_first_not_of('_');
  return position != std::string_view::npos && position > 0 && position <= 4 && name[position] == 'Z';
}

struct FreeDeleter {
  void operator()(char* text) const { std::free(text); }
};

}  // namespace

std::optional<std::string> demangleItanium(std::string_view machOName) {
  std::string_view name = machOName;
  if (name.size() > 1 && name[0] == '_' && name[1] == '_') name.remove_prefix(1);
  if (!looksItanium(name)) return std::nullopt;
  std::unique_ptr<char, FreeDeleter> text(llvm::itaniumDemangle(name));
  if (!text) return std::nullopt;
  return std::string(text.get());
}

std::optional<std::string> demangleSwift(std::string_view machOName) {
  if (!swift::isSwiftMangledName(machOName)) return std::nullopt;
  return swift::demangle(machOName, swift::Form::Simplified);
}

std::optional<std::string> demangled(std::string_view machOName) {
  if (auto name = demangleItanium(machOName)) return name;
  return demangleSwift(machOName);
}

std::string_view plainDisplayName(std::string_view machOName) {
  if (machOName.size() > 1 && (machOName[0] == '-' || machOName[0] == '+') && machOName[1] == '[') return machOName;
  if (!machOName.empty() && machOName[0] == '_') machOName.remove_prefix(1);
  return machOName;
}

}  // namespace symlift::demangle
