#include "support/diagnostics.h"

#include <fmt/format.h>

#include "console/console_log.h"

namespace symlift::support {

ConsoleDiagnosticsSink::~ConsoleDiagnosticsSink() { finish(); }

std::string ConsoleDiagnosticsSink::lineFor(const Diagnostic& diagnostic) {
  return fmt::format("Skipped {} in {} at offset {:#x} of {}", diagnostic.text, diagnostic.section, diagnostic.offset,
                     diagnostic.file);
}

void ConsoleDiagnosticsSink::report(const Diagnostic& diagnostic) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (++reports_[diagnostic.file] <= linesPerFile_) console::SYLLogDebug("{}", lineFor(diagnostic));
}

void ConsoleDiagnosticsSink::finish() {
  std::lock_guard<std::mutex> guard(mutex_);
  for (const auto& [file, count] : reports_)
    if (count > linesPerFile_) console::SYLLogDebug("Skipped {} more damaged places in {}", count - linesPerFile_, file);
  reports_.clear();
}

}  // namespace symlift::support
