#pragma once
// Turns the text of a framework-search-paths build setting into the list of
// folders it names. Xcode writes the setting as words: quoted paths, paths
// with escaped blanks, paths ending in the recursive marker "**". Settings
// pasted by hand often carry blanks nobody escaped; the mangled parse
// rebuilds such paths from the pieces by asking which joins name folders.

#include <optional>
#include <string>
#include <vector>

namespace symlift::buildenv {

// The file-system questions the parsers ask, so that tests can answer them.
class SUPFileManager {
 public:
  virtual ~SUPFileManager() = default;
  // Whether something exists at path (following symbolic links), and
  // whether it is a folder.
  virtual bool fileExistsAtPath(const std::string& path, bool& isDirectory) const;
  static const SUPFileManager& defaultManager();
};

class SUPEnvironment {
 public:
  using Paths = std::vector<std::string>;

  // The well-formed parse when it gives a list, else the mangled parse.
  static std::optional<Paths> parseFrameworkSearchPathsFromString(const std::string& text,
                                                                  const std::string& workingDirectory,
                                                                  const SUPFileManager& fileManager);
  static std::optional<Paths> parseFrameworkSearchPathsFromString(const std::string& text,
                                                                  const std::string& workingDirectory);
  // Relative paths stay relative to the process's own working directory.
  static std::optional<Paths> parseFrameworkSearchPathsFromRootInString(const std::string& text);

  // A path in double quotes loses them (a lone quote gives nothing);
  // otherwise "\\" becomes "\" and then "\ " becomes " ".
  static std::optional<std::string> unquotedAndUnescapedPathForPath(const std::string& path);

  // Non-empty, and (joined to the working directory when relative, without
  // a last component "**") an existing folder.
  static bool isValidFrameworkSearchPath(const std::string& path, const std::string& workingDirectory,
                                         const SUPFileManager& fileManager);

  // The setting split into words as a shell would; nothing unless every word
  // is a valid search path. An empty setting gives an empty list.
  static std::optional<Paths> parseWellFormedFrameworkSearchPathsFromString(const std::string& text,
                                                                            const std::string& workingDirectory,
                                                                            const SUPFileManager& fileManager);
  // Rebuilds paths whose blanks were not escaped: pieces split at every
  // blank are joined, left to right, into the shortest runs that name
  // folders; a piece that fits nowhere is dropped.
  static Paths parseMangledFrameworkSearchPathsFromString(const std::string& text,
                                                          const std::string& workingDirectory,
                                                          const SUPFileManager& fileManager);
};

}  // namespace symlift::buildenv
