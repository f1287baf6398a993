#include "cli/app_id.h"

#include <nlohmann/json.hpp>

#include "console/console_log.h"
#include "support/property_list.h"
#include "support/files.h"

namespace symlift::cli {

using namespace console;

namespace {

std::optional<std::string> environmentValue(const buildenv::Environment& environment, const char* name) {
  auto it = environment.find(name);
  if (it == environment.end()) return std::nullopt;
  return it->second;
}

// The value under the app id key. A string is returned as it is and a number
// or boolean as its text; any other kind counts as an empty identifier.
std::string appIDValue(const support::PropertyList& plist) {
  return plist.stringForKey(kAppIDKey).value_or("");
}

// Length of the white-space or line-break code point at the start of text,
// 0 when it starts with anything else.
std::size_t leadingSpaceLength(std::string_view text) {
  if (text.empty()) return 0;
  auto b = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  unsigned char c = b(0);
  if (c == ' ' || (c >= '\t' && c <= '\r')) return 1;
  if (c == 0xC2 && text.size() >= 2 && (b(1) == 0x85 || b(1) == 0xA0)) return 2;  // NEL, no-break space
  if (text.size() >= 3) {
    if (c == 0xE1 && b(1) == 0x9A && b(2) == 0x80) return 3;  // ogham space mark
    if (c == 0xE2 && b(1) == 0x80 && ((b(2) >= 0x80 && b(2) <= 0x8A) || b(2) == 0xA8 || b(2) == 0xA9 ||
                                      b(2) == 0xAF))
      return 3;  // en quad .. hair space, line and paragraph separators, narrow no-break space
    if (c == 0xE2 && b(1) == 0x81 && b(2) == 0x9F) return 3;  // medium mathematical space
    if (c == 0xE3 && b(1) == 0x80 && b(2) == 0x80) return 3;  // ideographic space
  }
  return 0;
}

// Length of the white-space or line-break code point at the end of text.
std::size_t trailingSpaceLength(std::string_view text) {
  for (std::size_t length = 1; length <= 3 && length <= text.size(); ++length) {
    std::string_view tail = text.substr(text.size() - length);
    // Only a whole code point counts: the tail must start on a lead byte.
    if (length > 1 && (static_cast<unsigned char>(tail[0]) & 0xC0) == 0x80) continue;
    if (leadingSpaceLength(tail) == length) return length;
  }
  return 0;
}

}  // namespace

std::string trimWhitespaceAndNewlines(std::string_view text) {
  while (std::size_t n = leadingSpaceLength(text)) text.remove_prefix(n);
  while (std::size_t n = trailingSpaceLength(text)) text.remove_suffix(n);
  return std::string(text);
}

std::optional<std::string> resolveAppID(const ArgumentList& arguments,
                                        const std::optional<buildenv::Environment>& environment) {
  if (arguments.hasFlag(kAppIDOption)) {
    auto appID = arguments.valueForFlag(kAppIDOption);
    if (!appID) SYLLogError("Could not get the value for the {} parameter", kAppIDOption.longName);
    return appID;
  }
  if (arguments.hasFlag(kServicePlistOption)) {
    return appIDFromServicePlist(arguments.valueForFlag(kServicePlistOption));
  }
  if (arguments.hasFlag(kBuildPhaseOption)) {
    std::optional<std::string> appID;
    if (environment) appID = appIDFromBuildEnvironment(*environment);
    if (!appID) SYLLogError("Could not get OMVARA_APP_ID in Omvara Services file from build environment");
    return appID;
  }
  if (arguments.hasFlag(kLumoProjectOption)) {
    return appIDFromLumoProject(arguments.valueForFlag(kLumoProjectOption));
  }
  SYLLogError("No Omvara App ID or Omvara Services file provided");
  return std::nullopt;
}

std::optional<std::string> appIDFromServicePlist(const std::optional<std::string>& path) {
  if (!path) {
    SYLLogError("Could not get path for OmvaraService-Info.plist");
    return std::nullopt;
  }
  auto plist = support::PropertyList::fromFile(*path);
  if (!plist.isDictionary() || plist.dictionarySize() == 0) {
    SYLLogError("Unable to read Omvara Service plist at path {}", *path);
    return std::nullopt;
  }
  if (!plist.itemForKey(kAppIDKey)) {
    SYLLogError("Missing key: {} in Omvara Service plist at path {}", kAppIDKey, *path);
    return std::nullopt;
  }
  return appIDValue(plist);
}

std::optional<std::string> appIDFromBuildEnvironment(const buildenv::Environment& environment) {
  auto productsFolder = environmentValue(environment, "BUILT_PRODUCTS_DIR");
  auto resourcesFolder = environmentValue(environment, "UNLOCALIZED_RESOURCES_FOLDER_PATH");
  if (!productsFolder || !resourcesFolder) return std::nullopt;
  const std::string path =
      *productsFolder + "/" + *resourcesFolder + "/" + std::string(kServicePlistFileName);
  auto plist = support::PropertyList::fromFile(path);
  if (!plist.isDictionary() || !plist.itemForKey(kAppIDKey)) return std::nullopt;
  return appIDValue(plist);
}

std::optional<std::string> appIDFromLumoProject(const std::optional<std::string>& path) {
  if (!path) {
    SYLLogError("Could not get path for LumoAppIDFile.vexa");
    return std::nullopt;
  }
  auto contents = support::readRegularFile(*path, support::kMaxJSONFileBytes);
  if (!contents) {
    SYLLogError("Unable to read file at path {}", *path);
    return std::nullopt;
  }
  // Deeper than any real file: refused as text that is no JSON object.
  if (!support::jsonNestingWithin(*contents, support::kMaxNestingDepth)) {
    SYLLogError("Unable to create json from file at path {}", *path);
    return std::nullopt;
  }
  auto json = nlohmann::json::parse(*contents, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded() || !json.is_object()) {
    SYLLogError("Unable to create json from file at path {}", *path);
    return std::nullopt;
  }
  auto it = json.find(kAppIDKey);
  if (it == json.end() || !it->is_string()) {
    SYLLogError("Unable to read valid app ID from path {}", *path);
    return std::nullopt;
  }
  return trimWhitespaceAndNewlines(it->get<std::string>());
}

}  // namespace symlift::cli
