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

void HTTPHeaders::removeField(std::string_view name) {
  std::erase_if(fields_, [&](const Field& field) { return namesEqual(field.first, name); });
}

}  // namespace symlift::network
