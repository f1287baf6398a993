#include "support/error.h"

#include <fmt/format.h>

namespace symlift::support {

std::string Error::localizedDescription() const {
  if (auto it = userInfo.find(kLocalizedDescriptionKey); it != userInfo.end()) return it->second;
  if (auto it = userInfo.find(kLocalizedFailureReasonKey); it != userInfo.end())
    return "The operation couldn\u2019t be completed. " + it->second;
  return fmt::format("The operation couldn\u2019t be completed. ({} error {}.)", domain, code);
}

std::string Error::description() const {
  std::string text = fmt::format("Error Domain={} Code={} \"{}\"", domain, code, localizedDescription());
  if (!userInfo.empty() || !underlyingErrors.empty() || !errorLists.empty()) {
    text += " UserInfo={";
    bool first = true;
    for (const auto& [key, value] : userInfo) {
      text += fmt::format("{}{}={}", first ? "" : ", ", key, value);
      first = false;
    }
    if (!underlyingErrors.empty() && underlyingErrors.front()) {
      text += fmt::format("{}NSUnderlyingError={}", first ? "" : ", ", underlyingErrors.front()->description());
      first = false;
    }
    for (const auto& [key, errors] : errorLists) {
      text += fmt::format("{}{}=(", first ? "" : ", ", key);
      for (std::size_t i = 0; i < errors.size(); ++i)
        text += fmt::format("{}{}", i ? ", " : "", errors[i] ? errors[i]->description() : "(null)");
      text += ")";
      first = false;
    }
    text += "}";
  }
  return text;
}

}  // namespace symlift::support
