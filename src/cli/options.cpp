#include "cli/options.h"

#include <algorithm>
#include <iterator>
#include <string>

namespace symlift::cli {

ArgumentList::ArgumentList(int argc, char** argv) {
  for (int i = 0; i < argc; ++i) {
    if (argv[i]) words_.emplace_back(argv[i]);
  }
}

namespace {

// prefix + name, built by appending (GCC 12 at -O3 warns falsely about
// operator+ on a literal and a temporary string).
std::string dashed(std::string_view dashes, std::string_view name) {
  std::string word;
  word.reserve(dashes.size() + name.size());
  word.append(dashes).append(name);
  return word;
}

}  // namespace

bool ArgumentList::hasFlag(std::string_view shortName, std::string_view longName) const {
  const std::string spellings[] = {
      dashed("-", shortName),
      dashed("--", shortName),
      dashed("-", longName),
      dashed("--", longName),
  };
  for (const auto& word : words_) {
    for (const auto& spelling : spellings) {
      if (word == spelling) return true;
    }
  }
  return false;
}

std::optional<std::string> ArgumentList::valueForKey(std::string_view key) const {
  // Argument-domain lookup: a word "-key" followed by any word sets key to
  // that word. The program path is not part of the domain. Every word is
  // looked at, so an option followed by another option does not hide it.
  const std::string keyWord = dashed("-", key);
  std::optional<std::string> value;
  for (std::size_t i = 1; i + 1 < words_.size(); ++i) {
    if (words_[i] == keyWord) value = words_[i + 1];
  }
  return value;
}

std::optional<std::string> ArgumentList::valueForFlag(std::string_view shortName,
                                                      std::string_view longName) const {
  const std::string keys[] = {
      std::string(shortName),
      dashed("-", shortName),
      std::string(longName),
      dashed("-", longName),
  };
  for (const auto& key : keys) {
    if (auto value = valueForKey(key)) return value;
  }
  return std::nullopt;
}

std::vector<std::string> ArgumentList::pathArguments() const {
  std::vector<std::string> paths;
  bool afterSeparator = false;
  std::size_t run = 0;
  for (const auto& word : words_) {
    if (word == "--") {
      afterSeparator = true;
      continue;
    }
    if (!word.empty() && word.front() == '-') {
      run = 0;
    } else {
      ++run;
    }
    if (afterSeparator || run >= 2) paths.push_back(word);
  }
  return paths;
}

std::optional<std::string> ArgumentList::firstUnknownOption() const {
  const auto names = [](const std::string& word, const Option& option) {
    for (std::string_view dashes : {"-", "--"})
      for (std::string_view name : {option.shortName, option.longName})
        if (word == dashed(dashes, name)) return true;
    return false;
  };
  for (std::size_t i = 1; i < words_.size(); ++i) {
    const std::string& word = words_[i];
    if (word == "--") break;
    if (word.size() < 2 || word.front() != '-') continue;
    if (std::any_of(std::begin(kAllOptions), std::end(kAllOptions), [&](const Option& o) { return names(word, o); })) {
      if (std::any_of(std::begin(kValuedOptions), std::end(kValuedOptions),
                      [&](const Option& o) { return names(word, o); }))
        ++i;  // its value, whatever it looks like
      continue;
    }
    return word;
  }
  return std::nullopt;
}

}  // namespace symlift::cli
