#pragma once
// SUPTask runs an external program synchronously and hands its standard
// error, standard output and termination status to a completion.
//
// Conventions of this runner:
//  - Standard input is a pipe whose writing end is closed at once, so a
//    program that reads it sees end of file instead of waiting forever.
//  - Both output pipes are read while the program runs, so a program that
//    writes more than a pipe buffer holds cannot block.
//  - Termination status: the exit status for a normal exit, 128 + the signal
//    number for a program ended by a signal (as shells report it), -1 when
//    the status was lost (the child was reaped elsewhere).
//  - A program that cannot be started (no such file, not executable, missing
//    working directory) makes the launch return false WITHOUT calling the
//    completion; the other operations then answer as for a failed run
//    (nothing, or false).
//  - With a time limit, the program is sent SIGTERM once the deadline has
//    passed (again and again while it keeps running) and SIGKILL when it
//    is still running five seconds after the deadline.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace symlift::buildenv {

// (standard-error bytes, standard-output bytes, termination status)
using SUPTaskCompletion =
    std::function<void(const std::string& standardError, const std::string& standardOutput, std::int32_t status)>;

class SUPTask {
 public:
  using Arguments = std::vector<std::string>;
  using EnvironmentMap = std::map<std::string, std::string>;

  // Runs path with the arguments (none: an empty list), in workingDirectory
  // when given, with exactly environment when given (else ours is
  // inherited). A timeout of 0 or less means no limit. Blocks until the
  // program has exited and the completion has run; false when the program
  // could not be started (the completion is then not called).
  static bool launchWithPath(const std::string& path, const std::optional<std::string>& workingDirectory,
                             const std::optional<Arguments>& arguments,
                             const std::optional<EnvironmentMap>& environment, double timeout,
                             const SUPTaskCompletion& completion);
  static bool launchWithPath(const std::string& path, const std::optional<std::string>& workingDirectory,
                             const std::optional<Arguments>& arguments,
                             const std::optional<EnvironmentMap>& environment, const SUPTaskCompletion& completion);
  static bool launchWithPath(const std::string& path, const std::optional<std::string>& workingDirectory,
                             const std::optional<Arguments>& arguments, const SUPTaskCompletion& completion);

  // The program's standard output (or error) as UTF-8 text; nothing when it
  // is not valid UTF-8 or the program could not be started.
  static std::optional<std::string> stdoutWithLaunchPath(const std::string& path, const Arguments& arguments);
  static std::optional<std::string> stderrWithLaunchPath(const std::string& path, const Arguments& arguments);

  // Whether the program ran and exited with status 0; its output is discarded.
  static bool runTaskWithLaunchPath(const std::string& path, const std::optional<std::string>& currentDirectoryPath,
                                    const Arguments& arguments);
  static bool runTaskWithLaunchPath(const std::string& path, const Arguments& arguments);

  // Splits a command-line string into words at blanks and line breaks.
  // Double and single quotes group (and may make an empty word); a backslash
  // outside single quotes takes the next character literally (inside double
  // quotes only before '"', '\\', '$' and '`'; elsewhere it is kept), and a
  // backslash before a line break joins the lines.
  static std::vector<std::string> parsedArgumentsFromString(const std::string& commandLine);

  // The values that follow any of the option prefixes among the words, in
  // order: a word that starts with a prefix and is longer gives the rest of
  // the word ("-F/Frameworks" gives "/Frameworks"); a word equal to a prefix
  // gives the next word when allowTrailingSpace is true ("-F" "/Frameworks"),
  // and nothing otherwise.
  static std::vector<std::string> valuesForOptionPrefixes(const std::vector<std::string>& words,
                                                          const std::vector<std::string>& validPrefixes,
                                                          bool allowTrailingSpace);

  // Whether bytes are valid UTF-8 (no overlong forms, no surrogates).
  static bool isValidUTF8(const std::string& bytes);
};

}  // namespace symlift::buildenv
