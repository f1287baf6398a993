#pragma once
// Inputs made to hurt a reader: nesting far past any real file, made here
// rather than committed.

#include <cstdint>
#include <string>

namespace symlift::testing {

// An XML property list whose top-level dictionary holds "OMVARA_APP_ID"
// and, beside it, depth nested arrays.
inline std::string deepXMLPlist(std::size_t depth) {
  std::string text =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict><key>OMVARA_APP_ID</key>"
      "<string>1:2:ios:deep</string><key>deep</key>";
  text.reserve(text.size() + depth * 15 + 32);
  for (std::size_t i = 0; i < depth; ++i) text += "<array>";
  for (std::size_t i = 0; i < depth; ++i) text += "</array>";
  return text + "</dict></plist>\n";
}

// A binary property list of depth arrays, each holding the next (the last
// empty): object i is at offset 8 + 5 i.
inline std::string deepBinaryPlist(std::size_t depth) {
  std::string text = "bplist00";
  const auto bigEndian = [&text](std::uint64_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) text.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
  };
  for (std::size_t i = 0; i < depth; ++i) {
    if (i + 1 < depth) {
      text.push_back(static_cast<char>(0xA1));  // an array of one
      bigEndian(i + 1, 4);
    } else {
      text.push_back(static_cast<char>(0xA0));  // an empty array
      text.append(4, '\0');
    }
  }
  const std::uint64_t offsetTable = text.size();
  for (std::size_t i = 0; i < depth; ++i) bigEndian(8 + 5 * i, 4);
  text.append(6, '\0');
  text.push_back(4);  // offset size
  text.push_back(4);  // object reference size
  bigEndian(depth, 8);
  bigEndian(0, 8);  // the top object
  bigEndian(offsetTable, 8);
  return text;
}

}  // namespace symlift::testing
