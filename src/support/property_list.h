#pragma once
// Reading property lists (XML or binary) through libplist, with ownership.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <plist/plist.h>

namespace symlift::support {

class PropertyList {
 public:
  PropertyList() = default;
  explicit PropertyList(plist_t node) : node_(node, &plist_free) {}

  // Parses XML or binary property-list bytes; an empty list on any error.
  static PropertyList fromBytes(std::string_view bytes);
  // Reads and parses a whole file; an empty list when it cannot be read.
  static PropertyList fromFile(const std::string& path);

  explicit operator bool() const { return node_ != nullptr; }
  plist_t node() const { return node_.get(); }

  bool isDictionary() const;
  // Number of keys of a dictionary; 0 for anything else.
  std::size_t dictionarySize() const;
  // The item under key of a dictionary, or nullptr (not owned).
  plist_t itemForKey(const char* key) const;
  // The string under key; a number or boolean is rendered as text, as a
  // property-list value's description would; nothing for other kinds.
  std::optional<std::string> stringForKey(const char* key) const;

  // Text of a single node: strings as they are, integers and reals in
  // decimal, booleans as 1/0; nothing for containers, data and dates.
  static std::optional<std::string> textOfNode(plist_t node);

 private:
  std::shared_ptr<void> node_;
};

}  // namespace symlift::support
