#pragma once
// Reading property lists (XML or binary) through libplist, with ownership.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <plist/plist.h>

namespace symlift::support {

// Deepest nesting of arrays and dictionaries (or JSON arrays and objects)
// accepted in input. The parsers recurse once per level, so a file nested
// far deeper would exhaust the stack; real files nest a few levels.
inline constexpr std::size_t kMaxNestingDepth = 256;

// Whether the arrays and dictionaries of property-list bytes nest at most
// maxDepth deep, found without parsing them. An XML list is scanned for its
// <array> and <dict> elements; a binary list's object graph is walked from
// its top object, and one that is damaged (a reference or offset out of
// bounds, a cycle, references sharing bytes beyond the file's size) is
// refused as well. Other bytes are not property lists and pass.
bool propertyListNestingWithin(std::string_view bytes, std::size_t maxDepth);

// Whether the arrays and objects of JSON text nest at most maxDepth deep
// (brackets inside strings do not count).
bool jsonNestingWithin(std::string_view text, std::size_t maxDepth);

class PropertyList {
 public:
  PropertyList() = default;
  explicit PropertyList(plist_t node) : node_(node, &plist_free) {}

  // Parses XML or binary property-list bytes; an empty list on any error
  // and for lists nested deeper than kMaxNestingDepth.
  static PropertyList fromBytes(std::string_view bytes);
  // Reads and parses a whole regular file of at most
  // kMaxPropertyListFileBytes; an empty list when it cannot be read.
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
