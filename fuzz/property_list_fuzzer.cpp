// Arbitrary bytes as a property list, XML or binary: the shape of a dSYM's
// Info.plist and of the service plist that carries the app identifier. The
// whole tree is walked and every key the tool looks up is read.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include <plist/plist.h>

#include "support/property_list.h"

namespace {

using symlift::support::PropertyList;

// Deep trees are legal; the walk stops where the tool would never look.
constexpr int kMaxDepth = 64;

std::size_t walk(plist_t node, int depth) {
  if (!node || depth > kMaxDepth) return 0;
  std::size_t total = 1;
  if (auto text = PropertyList::textOfNode(node)) total += text->size();
  switch (plist_get_node_type(node)) {
    case PLIST_DICT: {
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      if (!it) break;
      // Values only: the tool looks keys up but never lists them (and
      // libplist's key getter asserts on a key holding a NUL byte).
      for (;;) {
        plist_t value = nullptr;
        plist_dict_next_item(node, it, nullptr, &value);
        if (!value) break;
        total += walk(value, depth + 1);
      }
      free(it);
      break;
    }
    case PLIST_ARRAY: {
      const std::uint32_t count = plist_array_get_size(node);
      for (std::uint32_t i = 0; i < count; ++i) total += walk(plist_array_get_item(node, i), depth + 1);
      break;
    }
    default:
      break;
  }
  return total;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  PropertyList plist = PropertyList::fromBytes(bytes);
  if (!plist) return 0;
  std::size_t total = walk(plist.node(), 0);
  // A dictionary answers its size and its keys; anything else answers 0 and
  // nothing, whatever it holds.
  const bool dictionary = plist.isDictionary();
  if (!dictionary && plist.dictionarySize() != 0) std::abort();
  for (const char* key : {"CFBundleIdentifier", "CFBundleShortVersionString", "CFBundleVersion",
                          "CFBundleInfoDictionaryVersion", "OMVARA_APP_ID", "$archiver", "$objects"}) {
    plist_t item = plist.itemForKey(key);
    if (!dictionary && item) std::abort();
    auto text = plist.stringForKey(key);
    if (text && !item) std::abort();
    if (text) total += text->size();
  }
  volatile std::size_t sink = total;
  (void)sink;
  return 0;
}
