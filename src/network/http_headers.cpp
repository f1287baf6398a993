#include "network/http_headers.h"

#include <algorithm>

namespace symlift::network {

namespace {
char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
}  // namespace

bool HTTPHeaders::namesEqual(std::string_view a, std::string_view b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return lower(x) == lower(y); });
}

std::optional<std::string> HTTPHeaders::valueForField(std::string_view name) const {
  for (const auto& [field, value] : fields_)
    if (namesEqual(field, name)) return value;
  return std::nullopt;
}

void HTTPHeaders::setValue(std::string value, std::string_view name) {
  for (auto& field : fields_) {
    if (namesEqual(field.first, name)) {
      field.second = std::move(value);
      return;
    }
  }
  fields_.emplace_back(std::string(name), std::move(value));
}

void HTTPHeaders::addValue(std::string_view value, std::string_view name) {
  for (auto& field : fields_) {
    if (namesEqual(field.first, name)) {
      field.second.append(",").append(value);
      return;
    }
  }
  fields_.emplace_back(std::string(name), std::string(value));
}

namespace {
std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' || text.back() == '\n'))
    text.remove_suffix(1);
  return text;
}
}  // namespace

void HTTPHeaders::takeResponseHeaderLine(std::string_view line) {
  if (line.starts_with("HTTP/")) {
    fields_.clear();
    return;
  }
  auto colon = line.find(':');
  if (colon == std::string_view::npos || colon == 0) return;
  std::string_view name = trimmed(line.substr(0, colon));
  if (name.empty()) return;  // " : value" names no field
  std::string value(trimmed(line.substr(colon + 1)));
  if (auto existing = valueForField(name)) value = *existing + ", " + value;
  setValue(std::move(value), name);
}

void HTTPHeaders::removeField(std::string_view name) {
  std::erase_if(fields_, [&](const Field& field) { return namesEqual(field.first, name); });
}

}  // namespace symlift::network
