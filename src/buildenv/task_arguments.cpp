// SUPTask's command-line word splitting and option-value matching.

#include "buildenv/task.h"

namespace symlift::buildenv {

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

}  // namespace

std::vector<std::string> SUPTask::parsedArgumentsFromString(const std::string& commandLine) {
  std::vector<std::string> words;
  std::string word;
  bool inWord = false;  // a quote pair alone makes a (possibly empty) word
  enum class Quote { none, single, dual } quote = Quote::none;

  const std::size_t n = commandLine.size();
  for (std::size_t i = 0; i < n; ++i) {
    char c = commandLine[i];
    switch (quote) {
      case Quote::single:
        if (c == '\'')
          quote = Quote::none;
        else
          word += c;
        break;
      case Quote::dual:
        if (c == '"') {
          quote = Quote::none;
        } else if (c == '\\' && i + 1 < n) {
          char next = commandLine[i + 1];
          if (next == '"' || next == '\\' || next == '$' || next == '`') {
            word += next;
            ++i;
          } else if (next == '\n') {
            ++i;
          } else {
            word += c;
          }
        } else {
          word += c;
        }
        break;
      case Quote::none:
        if (isBlank(c)) {
          if (inWord) {
            words.push_back(std::move(word));
            word.clear();
            inWord = false;
          }
        } else if (c == '\'') {
          quote = Quote::single;
          inWord = true;
        } else if (c == '"') {
          quote = Quote::dual;
          inWord = true;
        } else if (c == '\\') {
          if (i + 1 < n) {
            char next = commandLine[++i];
            if (next != '\n') {
              word += next;
              inWord = true;
            }
          } else {
            word += c;  // a trailing backslash stays as it is
            inWord = true;
          }
        } else {
          word += c;
          inWord = true;
        }
        break;
    }
  }
  // An unterminated quote runs to the end of the string.
  if (inWord) words.push_back(std::move(word));
  return words;
}

std::vector<std::string> SUPTask::valuesForOptionPrefixes(const std::vector<std::string>& words,
                                                          const std::vector<std::string>& validPrefixes,
                                                          bool allowTrailingSpace) {
  std::vector<std::string> values;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    for (const std::string& prefix : validPrefixes) {
      if (prefix.empty() || word.compare(0, prefix.size(), prefix) != 0) continue;
      if (word.size() > prefix.size()) {
        values.push_back(word.substr(prefix.size()));
      } else if (allowTrailingSpace && i + 1 < words.size()) {
        values.push_back(words[++i]);
      }
      break;
    }
  }
  return values;
}

}  // namespace symlift::buildenv
