#include "operations/pipeline_observer.h"

#include <charconv>
#include <vector>

namespace symlift::operations {

std::optional<CSYMHeader> csymHeaderOf(std::string_view text) {
  const std::string_view header = text.substr(0, text.find('\n'));
  std::vector<std::string_view> fields;
  for (std::size_t start = 0;;) {
    const std::size_t tab = header.find('\t', start);
    fields.push_back(header.substr(start, tab == std::string_view::npos ? std::string_view::npos : tab - start));
    if (tab == std::string_view::npos) break;
    start = tab + 1;
  }
  if (fields.size() != 8 || fields[0] != "code_mapping") return std::nullopt;
  std::uint64_t values[3] = {};
  for (std::size_t i = 0; i < 3; ++i) {
    const std::string_view field = fields[5 + i];
    const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), values[i]);
    if (error != std::errc() || end != field.data() + field.size()) return std::nullopt;
  }
  return CSYMHeader{std::string(fields[3]), std::string(fields[4]), values[0], values[1], values[2]};
}

}  // namespace symlift::operations
