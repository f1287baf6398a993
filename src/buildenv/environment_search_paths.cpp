#include "buildenv/environment_search_paths.h"

#include <sys/stat.h>

#include "buildenv/task.h"

namespace symlift::buildenv {

namespace {

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
  std::string result;
  std::size_t start = 0;
  for (std::size_t found; (found = text.find(from, start)) != std::string::npos; start = found + from.size())
    result.append(text, start, found - start).append(to);
  result.append(text, start, std::string::npos);
  return result;
}

// The path without trailing slashes (the root stays "/").
std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::string deletingLastPathComponent(const std::string& path) {
  auto slash = path.rfind('/');
  if (slash == std::string::npos) return "";
  if (slash == 0) return "/";
  return withoutTrailingSlashes(path.substr(0, slash));
}

std::string lastPathComponent(const std::string& path) {
  auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::vector<std::string> splitAtBlanks(const std::string& text) {
  std::vector<std::string> pieces;
  std::size_t start = 0;
  for (std::size_t blank; (blank = text.find(' ', start)) != std::string::npos; start = blank + 1)
    pieces.push_back(text.substr(start, blank - start));
  pieces.push_back(text.substr(start));
  return pieces;
}

}  // namespace

bool SUPFileManager::fileExistsAtPath(const std::string& path, bool& isDirectory) const {
  struct stat info {};
  if (path.empty() || ::stat(path.c_str(), &info) != 0) return false;
  isDirectory = S_ISDIR(info.st_mode);
  return true;
}

const SUPFileManager& SUPFileManager::defaultManager() {
  static const SUPFileManager manager;
  return manager;
}

std::optional<SUPEnvironment::Paths> SUPEnvironment::parseFrameworkSearchPathsFromString(
    const std::string& text, const std::string& workingDirectory, const SUPFileManager& fileManager) {
  if (auto paths = parseWellFormedFrameworkSearchPathsFromString(text, workingDirectory, fileManager)) return paths;
  return parseMangledFrameworkSearchPathsFromString(text, workingDirectory, fileManager);
}

std::optional<SUPEnvironment::Paths> SUPEnvironment::parseFrameworkSearchPathsFromString(
    const std::string& text, const std::string& workingDirectory) {
  return parseFrameworkSearchPathsFromString(text, workingDirectory, SUPFileManager::defaultManager());
}

std::optional<SUPEnvironment::Paths> SUPEnvironment::parseFrameworkSearchPathsFromRootInString(
    const std::string& text) {
  return parseFrameworkSearchPathsFromString(text, "");
}

std::optional<std::string> SUPEnvironment::unquotedAndUnescapedPathForPath(const std::string& path) {
  if (!path.empty() && path.front() == '"' && path.back() == '"') {
    if (path.size() == 1) return std::nullopt;
    return path.substr(1, path.size() - 2);
  }
  return replaceAll(replaceAll(path, "\\\\", "\\"), "\\ ", " ");
}

bool SUPEnvironment::isValidFrameworkSearchPath(const std::string& path, const std::string& workingDirectory,
                                                const SUPFileManager& fileManager) {
  if (path.empty()) return false;
  std::string full = path;
  if (full.front() != '/' && !workingDirectory.empty())
    full = withoutTrailingSlashes(workingDirectory) + (workingDirectory == "/" ? "" : "/") + full;
  full = withoutTrailingSlashes(full);
  if (lastPathComponent(full) == "**") full = deletingLastPathComponent(full);
  bool isDirectory = false;
  return fileManager.fileExistsAtPath(full, isDirectory) && isDirectory;
}

std::optional<SUPEnvironment::Paths> SUPEnvironment::parseWellFormedFrameworkSearchPathsFromString(
    const std::string& text, const std::string& workingDirectory, const SUPFileManager& fileManager) {
  Paths words = SUPTask::parsedArgumentsFromString(text);
  for (const auto& word : words)
    if (!isValidFrameworkSearchPath(word, workingDirectory, fileManager)) return std::nullopt;
  return words;
}

SUPEnvironment::Paths SUPEnvironment::parseMangledFrameworkSearchPathsFromString(const std::string& text,
                                                                                const std::string& workingDirectory,
                                                                                const SUPFileManager& fileManager) {
  auto validWhenUnquoted = [&](const std::string& candidate) {
    auto unquoted = unquotedAndUnescapedPathForPath(candidate);
    return unquoted && isValidFrameworkSearchPath(*unquoted, workingDirectory, fileManager);
  };

  const std::vector<std::string> pieces = splitAtBlanks(text);
  Paths result;
  std::size_t i = 0;
  while (i < pieces.size()) {
    Paths working = result;
    std::string candidate = pieces[i];
    std::optional<std::size_t> next;
    for (;;) {
      // The shortest run of pieces from i on that, after the candidate,
      // names a folder.
      std::string joined = candidate;
      for (std::size_t j = i; j < pieces.size(); ++j) {
        if (j > i) joined += " " + pieces[j];
        if (validWhenUnquoted(joined)) {
          working.push_back(joined);
          result = working;
          next = j + 1;
          break;
        }
      }
      if (next || working.empty()) break;
      // Nothing fits: perhaps the previous path was cut short and this
      // piece continues it.
      candidate = working.back() + " " + candidate;
      working.pop_back();
    }
    i = next.value_or(i + 1);
  }

  for (auto& entry : result) {
    if (isValidFrameworkSearchPath(entry, workingDirectory, fileManager)) continue;
    auto unquoted = unquotedAndUnescapedPathForPath(entry);
    if (unquoted && isValidFrameworkSearchPath(*unquoted, workingDirectory, fileManager)) entry = *unquoted;
  }
  return result;
}

}  // namespace symlift::buildenv
