#pragma once
// The error value that travels through the pipeline and the network layer:
// a domain, a signed code and string-keyed user information, with optional
// underlying errors. Failures are passed as values to completions, never thrown.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace symlift::support {

// Keys of the user-information map.
inline constexpr const char* kLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr const char* kLocalizedFailureReasonKey = "NSLocalizedFailureReason";

struct Error {
  std::string domain;
  std::int64_t code = 0;
  std::map<std::string, std::string> userInfo;
  // Under the platform's underlying-error key (the first is shown).
  std::vector<std::shared_ptr<const Error>> underlyingErrors;
  // User-information entries whose value is a list of errors.
  std::map<std::string, std::vector<std::shared_ptr<const Error>>> errorLists;

  Error() = default;
  Error(std::string domain, std::int64_t code, std::map<std::string, std::string> userInfo = {})
      : domain(std::move(domain)), code(code), userInfo(std::move(userInfo)) {}

  // The human-readable text: the description when there is one; else
  // "The operation couldn’t be completed. " followed by the failure reason,
  // or by "(<domain> error <code>.)" when there is none.
  std::string localizedDescription() const;
  // What "%@" of an error prints: "Error Domain=<d> Code=<c> \"<text>\"" with
  // the user information, as the platform's error description reads.
  std::string description() const;
};

using ErrorPtr = std::shared_ptr<const Error>;

inline ErrorPtr makeError(std::string domain, std::int64_t code,
                          std::map<std::string, std::string> userInfo = {}) {
  return std::make_shared<const Error>(std::move(domain), code, std::move(userInfo));
}

}  // namespace symlift::support
