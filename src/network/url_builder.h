#pragma once
// Assembles a URL string piece by piece: query values are percent-escaped
// and the first parameter is introduced by "?", every later one by "&".

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace symlift::network {

class SUPURLBuilder {
 public:
  SUPURLBuilder() = default;
  // A builder that starts from the base (appended as a component, so an
  // empty base is refused like any empty component).
  static SUPURLBuilder URLWithBase(std::string_view base);

  // Percent-encodes every UTF-8 byte outside the query-allowed characters
  // (letters, digits and ! $ & ' ( ) * + , - . / : ; = ? @ _ ~).
  static std::string escapeString(std::string_view string);

  // Appends verbatim; an empty component is logged as an error and skipped.
  void appendComponent(std::string_view component);
  void escapeAndAppendComponent(std::string_view component);

  // Value first, then the parameter name. No value: nothing happens. The
  // name is appended as it is; the value is escaped.
  void appendValueForQueryParam(const std::optional<std::string>& value, std::string_view name);
  void appendValueForQueryParam(const char* value, std::string_view name);
  // A number is appended through its decimal text.
  template <std::integral T>
  void appendValueForQueryParam(T value, std::string_view name) {
    appendNumberText(std::to_string(value), name);
  }
  void appendValueForQueryParam(double value, std::string_view name);

  // The parsed URL text, or nothing where the text is not a valid URL.
  std::optional<std::string> URL() const;

  const std::string& URLString() const { return URLString_; }
  void setURLString(std::string string) { URLString_ = std::move(string); }
  std::uint64_t queryParams() const { return queryParams_; }
  void setQueryParams(std::uint64_t count) { queryParams_ = count; }

 private:
  void appendSeparatorAndName(std::string_view name);
  void appendNumberText(const std::string& text, std::string_view name);

  std::string URLString_;
  std::uint64_t queryParams_ = 0;
};

}  // namespace symlift::network
