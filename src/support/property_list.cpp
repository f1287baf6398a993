#include "support/property_list.h"
#include "support/files.h"

#include <cstdio>
#include <limits>

#include <fmt/format.h>

namespace symlift::support {

PropertyList PropertyList::fromBytes(std::string_view bytes) {
  if (bytes.empty() || bytes.size() > std::numeric_limits<std::uint32_t>::max()) return {};
  plist_t node = nullptr;
  plist_from_memory(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &node);
  if (!node) return {};
  return PropertyList(node);
}

PropertyList PropertyList::fromFile(const std::string& path) {
  auto bytes = readWholeFile(path);
  if (!bytes) return {};
  return fromBytes(*bytes);
}

bool PropertyList::isDictionary() const {
  return node_ && plist_get_node_type(node()) == PLIST_DICT;
}

std::size_t PropertyList::dictionarySize() const {
  return isDictionary() ? plist_dict_get_size(node()) : 0;
}

plist_t PropertyList::itemForKey(const char* key) const {
  if (!isDictionary()) return nullptr;
  return plist_dict_get_item(node(), key);
}

std::optional<std::string> PropertyList::stringForKey(const char* key) const {
  return textOfNode(itemForKey(key));
}

std::optional<std::string> PropertyList::textOfNode(plist_t item) {
  if (!item) return std::nullopt;
  switch (plist_get_node_type(item)) {
    case PLIST_STRING: {
      // By pointer and length: a string may hold NUL bytes (binary lists
      // allow them, the XML reader lets a raw one through), and libplist's
      // copying getter asserts that it holds none.
      std::uint64_t length = 0;
      const char* value = plist_get_string_ptr(item, &length);
      if (!value) return std::nullopt;
      return std::string(value, length);
    }
    case PLIST_KEY: {
      // Dictionary keys; libplist hands out no key node for an item.
      char* value = nullptr;
      plist_get_key_val(item, &value);
      if (!value) return std::nullopt;
      std::string text(value);
      free(value);
      return text;
    }
    case PLIST_UINT: {
      std::uint64_t value = 0;
      plist_get_uint_val(item, &value);
      // libplist keeps negative integers as their two's-complement bits.
      return fmt::format("{}", static_cast<std::int64_t>(value));
    }
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(item, &value);
      return fmt::format("{}", value);
    }
    case PLIST_BOOLEAN: {
      std::uint8_t value = 0;
      plist_get_bool_val(item, &value);
      return std::string(value ? "1" : "0");
    }
    default:
      return std::nullopt;
  }
}


}  // namespace symlift::support
