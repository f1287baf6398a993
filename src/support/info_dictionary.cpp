#include "support/info_dictionary.h"

#include <string_view>

#include "support/property_list.h"

namespace symlift::support {

extern const std::string_view kEmbeddedInfoPlist;

namespace {
const PropertyList& embeddedInfo() {
  static const PropertyList info = PropertyList::fromBytes(kEmbeddedInfoPlist);
  return info;
}
}  // namespace

std::optional<std::string> infoDictionaryString(const char* key) {
  return embeddedInfo().stringForKey(key);
}

}  // namespace symlift::support
