#pragma once
// The command line's options and the three lookups made on the argument list:
// whether an option is given, the value that follows it, and the positional
// paths.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace symlift::cli {

// Every option has a short and a long name; "-short", "--short", "-long" and
// "--long" all name it. No "=" form, no abbreviations, no bundling.
struct Option {
  std::string_view shortName;
  std::string_view longName;
};

inline constexpr Option kHelpOption{"h", "help"};
inline constexpr Option kVersionOption{"v", "version"};
inline constexpr Option kDebugOption{"d", "debug"};
inline constexpr Option kMaxSymbolicationVersionOption{"x", "max-symbolication-version"};
inline constexpr Option kConvertOption{"c", "convert"};
inline constexpr Option kAPIKeyOption{"a", "api-key"};
inline constexpr Option kAppIDOption{"ai", "app-id"};
inline constexpr Option kServicePlistOption{"osp", "omvara-service-plist"};
inline constexpr Option kPlatformOption{"p", "platform"};
inline constexpr Option kBuildPhaseOption{"bp", "build-phase"};
inline constexpr Option kValidateOption{"val", "validate"};
inline constexpr Option kSkipDSYMValidationOption{"sdv", "skip-dsym-validation"};
inline constexpr Option kLumoProjectOption{"lp", "lumo-project"};
// For pipelines: a JSON report of the run written to the file given, and
// strictness (unknown options and runs that upload nothing fail).
inline constexpr Option kReportOption{"report", "report"};
inline constexpr Option kStrictOption{"strict", "strict"};

// Every option, and which of them take a value.
inline constexpr Option kAllOptions[] = {
    kHelpOption,          kVersionOption,    kDebugOption,        kMaxSymbolicationVersionOption, kConvertOption,
    kAPIKeyOption,        kAppIDOption,      kServicePlistOption, kPlatformOption,                kBuildPhaseOption,
    kValidateOption,      kSkipDSYMValidationOption, kLumoProjectOption, kReportOption,           kStrictOption,
};
inline constexpr Option kValuedOptions[] = {
    kMaxSymbolicationVersionOption, kAPIKeyOption, kAppIDOption, kServicePlistOption, kPlatformOption, kReportOption,
};

// The process's argument words, the program path at their head.
class ArgumentList {
 public:
  ArgumentList() = default;
  explicit ArgumentList(std::vector<std::string> words) : words_(std::move(words)) {}
  ArgumentList(int argc, char** argv);

  const std::vector<std::string>& words() const { return words_; }

  // Whether any whole word is "-short", "--short", "-long" or "--long".
  bool hasFlag(std::string_view shortName, std::string_view longName) const;
  bool hasFlag(const Option& option) const { return hasFlag(option.shortName, option.longName); }

  // The word that follows "-key", looked up under the keys short, "-short",
  // long and "-long" in this order; the first key found wins, and a key
  // that appears more than once takes the value of its last appearance.
  std::optional<std::string> valueForFlag(std::string_view shortName, std::string_view longName) const;
  std::optional<std::string> valueForFlag(const Option& option) const {
    return valueForFlag(option.shortName, option.longName);
  }

  // Every word after "--", and before it every word that is the second or
  // later of a run of words not beginning with "-" (the first of such a run
  // is an option's value, or the program path).
  std::vector<std::string> pathArguments() const;

  // The first word before "--" that looks like an option ("-" and more) but
  // names none, not counting the word after an option that takes a value.
  std::optional<std::string> firstUnknownOption() const;

 private:
  std::optional<std::string> valueForKey(std::string_view key) const;

  std::vector<std::string> words_;
};

}  // namespace symlift::cli
