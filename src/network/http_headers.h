#pragma once
// A table of HTTP header fields. Names are matched without regard to case:
// HTTP/2 delivers them in lower case, and callers use the canonical forms.

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace symlift::network {

class HTTPHeaders {
 public:
  using Field = std::pair<std::string, std::string>;

  // The value stored under the name, in whatever case it was stored.
  std::optional<std::string> valueForField(std::string_view name) const;
  // Replaces every value of the field (keeps the first spelling of the name).
  void setValue(std::string value, std::string_view name);
  // Appends to an existing value with a comma, as repeated fields combine.
  void addValue(std::string_view value, std::string_view name);
  void removeField(std::string_view name);

  // Takes one raw header line of a response as libcurl delivers it: a
  // status line starts a new head (after a redirect or an interim
  // response) and clears the table; "Name: value" is stored, a repeated
  // field joined to the earlier value with ", "; anything else is ignored.
  void takeResponseHeaderLine(std::string_view line);

  const std::vector<Field>& fields() const { return fields_; }
  bool empty() const { return fields_.empty(); }

  static bool namesEqual(std::string_view a, std::string_view b);

 private:
  std::vector<Field> fields_;  // in insertion order, one entry per name
};

}  // namespace symlift::network
