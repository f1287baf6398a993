#include "support/property_list.h"
#include "support/files.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <limits>
#include <unordered_map>
#include <vector>

#include <fmt/format.h>

namespace symlift::support {

namespace {

constexpr std::string_view kBinaryMagic = "bplist00";

// XML: <array> and <dict> open a level, </array> and </dict> close one; the
// empty forms, comments, CDATA sections, processing instructions and quoted
// attribute values (skipped as the parser skips them) do not count.
bool xmlNestingWithin(std::string_view xml, std::size_t maxDepth) {
  std::size_t depth = 0;
  std::size_t at = 0;
  const auto skipPast = [&](std::string_view end) {
    const std::size_t found = xml.find(end, at);
    at = found == std::string_view::npos ? xml.size() : found + end.size();
  };
  while ((at = xml.find('<', at)) != std::string_view::npos) {
    const std::string_view rest = xml.substr(at);
    if (rest.starts_with("<!--")) {
      at += 4;
      skipPast("-->");
      continue;
    }
    if (rest.starts_with("<![CDATA[")) {
      at += 9;
      skipPast("]]>");
      continue;
    }
    if (rest.starts_with("<?")) {
      at += 2;
      skipPast("?>");
      continue;
    }
    const bool closing = rest.starts_with("</");
    const std::size_t nameStart = at + (closing ? 2 : 1);
    std::size_t nameEnd = nameStart;
    while (nameEnd < xml.size() && (std::isalnum(static_cast<unsigned char>(xml[nameEnd])) || xml[nameEnd] == '_' ||
                                    xml[nameEnd] == '-' || xml[nameEnd] == ':'))
      ++nameEnd;
    const std::string_view name = xml.substr(nameStart, nameEnd - nameStart);
    std::size_t end = nameEnd;
    bool quoted = false;
    for (; end < xml.size(); ++end) {
      if (xml[end] == '"') quoted = !quoted;
      else if (!quoted && xml[end] == '>') break;
    }
    const bool empty = end < xml.size() && xml[end - 1] == '/';
    at = std::min(end + 1, xml.size());
    if (name != "array" && name != "dict") continue;
    if (closing) {
      if (depth > 0) --depth;
    } else if (!empty && ++depth > maxDepth) {
      return false;
    }
  }
  return true;
}

// A binary list ("bplist00"): objects, an offset table and a 32-byte trailer
// giving the sizes of offsets and object references, the number of objects,
// the top object and where the offset table starts.
class BinaryListWalk {
 public:
  explicit BinaryListWalk(std::string_view bytes) : bytes_(bytes) {}

  bool nestingWithin(std::size_t maxDepth) {
    constexpr std::size_t kTrailerSize = 32;
    if (bytes_.size() < kBinaryMagic.size() + kTrailerSize) return false;
    objectsEnd_ = bytes_.size() - kTrailerSize;
    offsetSize_ = byteAt(objectsEnd_ + 6);
    referenceSize_ = byteAt(objectsEnd_ + 7);
    if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8) return false;
    objectCount_ = number(objectsEnd_ + 8, 8);
    const std::uint64_t top = number(objectsEnd_ + 16, 8);
    tableStart_ = number(objectsEnd_ + 24, 8);
    if (objectCount_ == 0 || top >= objectCount_ || tableStart_ < kBinaryMagic.size() || tableStart_ > objectsEnd_ ||
        objectCount_ > (objectsEnd_ - tableStart_) / offsetSize_)
      return false;

    // Depth-first from the top object, with an explicit stack. Objects are
    // known by their offset: equal offsets are equal objects, so each one's
    // references are read once, and one met again while on the stack is a
    // cycle. The references read may not outnumber the file's bytes.
    struct Frame {
      std::uint64_t offset;
      std::uint64_t references;  // where its references start
      std::uint64_t count;       // how many
      std::uint64_t next = 0;
      std::size_t height = 1;    // levels of containers from it downwards
    };
    constexpr std::size_t kOnStack = 0;
    std::unordered_map<std::uint64_t, std::size_t> heights;  // kOnStack while being walked
    std::vector<Frame> stack;
    std::uint64_t budget = bytes_.size();
    const auto enter = [&](std::uint64_t offset) {
      Frame frame{.offset = offset, .references = 0, .count = 0};
      if (!container(offset, frame.references, frame.count)) return true;  // a leaf
      if (frame.count > budget) return false;
      budget -= frame.count;
      heights[offset] = kOnStack;
      stack.push_back(frame);
      return stack.size() <= maxDepth;
    };
    const auto topOffset = objectOffset(top);
    if (!topOffset || !enter(*topOffset)) return false;
    while (!stack.empty()) {
      Frame& frame = stack.back();
      if (frame.next == frame.count) {
        const Frame done = frame;
        heights[done.offset] = done.height;
        stack.pop_back();
        if (!stack.empty()) stack.back().height = std::max(stack.back().height, done.height + 1);
        continue;
      }
      const std::uint64_t reference = number(frame.references + frame.next * referenceSize_, referenceSize_);
      ++frame.next;
      if (reference >= objectCount_) return false;
      const auto offset = objectOffset(reference);
      if (!offset) return false;
      if (auto known = heights.find(*offset); known != heights.end()) {
        if (known->second == kOnStack) return false;
        frame.height = std::max(frame.height, known->second + 1);
        if (stack.size() - 1 + frame.height > maxDepth) return false;
        continue;
      }
      if (!enter(*offset)) return false;  // may move the frames
    }
    return true;
  }

 private:
  std::uint8_t byteAt(std::uint64_t at) const { return static_cast<std::uint8_t>(bytes_[at]); }

  // A big-endian number of width bytes; the caller has checked the bounds.
  std::uint64_t number(std::uint64_t at, std::size_t width) const {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) value = (value << 8) | byteAt(at + i);
    return value;
  }

  std::optional<std::uint64_t> objectOffset(std::uint64_t index) const {
    const std::uint64_t offset = number(tableStart_ + index * offsetSize_, offsetSize_);
    if (offset < kBinaryMagic.size() || offset >= objectsEnd_) return std::nullopt;
    return offset;
  }

  // Whether the object at offset is an array, set or dictionary; if so where
  // its references start and how many there are (keys and values for a
  // dictionary). A container whose references leave the object area counts
  // as one without references: the parser refuses it without recursing.
  bool container(std::uint64_t offset, std::uint64_t& references, std::uint64_t& count) const {
    const std::uint8_t marker = byteAt(offset);
    const unsigned kind = marker >> 4;
    if (kind != 0xA && kind != 0xC && kind != 0xD) return false;
    std::uint64_t size = marker & 0x0F;
    std::uint64_t at = offset + 1;
    count = 0;
    references = at;
    if (size == 0x0F) {
      // The size follows as an integer object: marker 0x1n, then 2^n bytes.
      if (at >= objectsEnd_ || (byteAt(at) >> 4) != 0x1) return true;
      const std::size_t width = std::size_t{1} << (byteAt(at) & 0x0F);
      if (width > 8 || width > objectsEnd_ - at - 1) return true;
      size = number(at + 1, width);
      at += 1 + width;
    }
    const std::uint64_t room = (objectsEnd_ - at) / referenceSize_;
    const std::uint64_t total = kind == 0xD ? size * 2 : size;
    if (size > room || total > room) return true;
    references = at;
    count = total;
    return true;
  }

  std::string_view bytes_;
  std::uint64_t objectsEnd_ = 0;
  std::size_t offsetSize_ = 0;
  std::size_t referenceSize_ = 0;
  std::uint64_t objectCount_ = 0;
  std::uint64_t tableStart_ = 0;
};

}  // namespace

bool propertyListNestingWithin(std::string_view bytes, std::size_t maxDepth) {
  if (bytes.starts_with(kBinaryMagic)) return BinaryListWalk(bytes).nestingWithin(maxDepth);
  return xmlNestingWithin(bytes, maxDepth);
}

bool jsonNestingWithin(std::string_view text, std::size_t maxDepth) {
  std::size_t depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') ++i;
      else if (c == '"') inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > maxDepth) return false;
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return true;
}

PropertyList PropertyList::fromBytes(std::string_view bytes) {
  if (bytes.empty() || bytes.size() > std::numeric_limits<std::uint32_t>::max()) return {};
  if (!propertyListNestingWithin(bytes, kMaxNestingDepth)) return {};
  plist_t node = nullptr;
  plist_from_memory(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &node);
  if (!node) return {};
  return PropertyList(node);
}

PropertyList PropertyList::fromFile(const std::string& path) {
  auto bytes = readRegularFile(path, kMaxPropertyListFileBytes);
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
