#include "cli/symbolication_version.h"

#include "symbols/symbolication_proxy.h"

#include <cctype>
#include <cstdlib>

namespace symlift::cli {

float defaultMaxSymbolicationVersion() { return symbols::defaultMaxCoreSymbolicationVersion(); }

namespace {
bool isDigit(char c) { return c >= '0' && c <= '9'; }
}  // namespace

float maxSymbolicationVersionFromText(const std::optional<std::string>& text) {
  if (!text) return 0.0f;
  // Only the plain decimal prefix is converted: strtof on its own would also
  // read "inf", "nan" and hexadecimal floats, which are no version numbers.
  const std::string& s = *text;
  std::size_t i = 0;
  while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
  const std::size_t start = i;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
  std::size_t digits = 0;
  while (i < s.size() && isDigit(s[i])) ++i, ++digits;
  if (i < s.size() && s[i] == '.') {
    ++i;
    while (i < s.size() && isDigit(s[i])) ++i, ++digits;
  }
  if (digits == 0) return 0.0f;
  if (i < s.size() && (s[i] == 'e' || s[i] == 'E')) {
    std::size_t j = i + 1;
    if (j < s.size() && (s[j] == '+' || s[j] == '-')) ++j;
    if (j < s.size() && isDigit(s[j])) {
      while (j < s.size() && isDigit(s[j])) ++j;
      i = j;
    }
  }
  const std::string number = s.substr(start, i - start);
  return std::strtof(number.c_str(), nullptr);
}

}  // namespace symlift::cli
