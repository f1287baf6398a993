// Arbitrary bytes as a Swift symbol name, in both output forms: the reader
// must return a name or nothing, never crash, hang or read out of bounds.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "demangle/swift/swift_demangler.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  namespace swift = symlift::demangle::swift;
  std::string_view name(reinterpret_cast<const char*>(data), size);
  std::size_t total = 0;
  if (auto text = swift::demangle(name, swift::Form::Full)) total += text->size();
  if (auto text = swift::demangle(name, swift::Form::Simplified)) total += text->size();
  total += swift::isSwiftMangledName(name) ? 1 : 0;
  volatile std::size_t sink = total;
  (void)sink;
  return 0;
}
