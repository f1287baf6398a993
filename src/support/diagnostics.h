#pragma once
// Where the readers of untrusted bytes (Mach-O, DWARF) say what they skipped:
// which file, which section, at which offset, and what was wrong there. A
// damaged file never stops a run that can go on; these reports are how a
// developer finds out why a slice came out short.

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace symlift::support {

struct Diagnostic {
  std::string file;          // the path that was read
  std::string section;       // "fat header", "load commands", "arm64 __debug_info", ...
  std::uint64_t offset = 0;  // in that section; for the Mach-O structures, in the file
  std::string text;          // what was skipped, as a noun phrase: "a DIE with an unknown form (0x7f)"
};

class DiagnosticsSink {
 public:
  virtual ~DiagnosticsSink() = default;
  // Called from any thread, possibly from several at once.
  virtual void report(const Diagnostic& diagnostic) = 0;
};

// Forgets every report: for callers that want no output at all.
class DiscardingDiagnosticsSink final : public DiagnosticsSink {
 public:
  void report(const Diagnostic&) override {}
};

// Prints each report as one debug line of the console log (shown only with
// -d). A badly damaged file could report on every DIE, so only the first
// linesPerFile reports of a file are printed; the others are counted and
// their number printed once, by finish() or at destruction.
class ConsoleDiagnosticsSink final : public DiagnosticsSink {
 public:
  static constexpr std::size_t kDefaultLinesPerFile = 20;

  explicit ConsoleDiagnosticsSink(std::size_t linesPerFile = kDefaultLinesPerFile) : linesPerFile_(linesPerFile) {}
  ~ConsoleDiagnosticsSink() override;

  void report(const Diagnostic& diagnostic) override;
  // "Skipped N more damaged places in <file>" for every file with reports
  // that were not printed; then forgets them.
  void finish();

  // "Skipped <text> in <section> at offset 0x<hex> of <file>"
  static std::string lineFor(const Diagnostic& diagnostic);

 private:
  std::size_t linesPerFile_;
  std::mutex mutex_;                            // guards reports_ and keeps one file's lines in order
  std::map<std::string, std::size_t> reports_;  // file → reports seen
};

}  // namespace symlift::support
