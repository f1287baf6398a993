#include "symbols/csym_generator.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "console/console_log.h"
#include "support/cleanup_registry.h"
#include "support/files.h"
#include "support/system_log.h"
#include "support/temporary_directory.h"
#include "support/unique_strings.h"
#include "symbols/symbol_processor.h"
#include "symbols/symbolication_proxy.h"

namespace symlift::symbols {

namespace {

constexpr std::uint64_t kCSYMFormatVersion = 1;

}  // namespace

std::string SUPCSYMGeneratorUtilities::csymPathForArchitecture(const std::string& architecture,
                                                               const std::string& uuid,
                                                               const std::string& /*dsymPath*/) {
  return support::temporaryDirectory() + "/" + architecture + "-" + uuid + ".csym";
}

bool CSYMGenerator::writeFileAtomically(const std::string& path, const std::string& bytes,
                                        support::CleanupRegistry* cleanup) {
  const std::string partial = path + ".partial." + support::SUPStrings::uniqueString();
  // Registered while it exists, so an interrupted run removes it; the final
  // name then takes its place in the registry.
  return support::replaceFileAtomically(path, bytes, partial, {.cleanup = cleanup});
}

std::map<std::string, std::string> CSYMGenerator::generateCSYMsFromDSYMAtPath(const std::string& path,
                                                                              float maxCoreSymbolicationVersion) {
  return generateCSYMsFromDSYMAtPath(path, maxCoreSymbolicationVersion, SliceHandler{});
}

std::map<std::string, std::string> CSYMGenerator::generateCSYMsFromDSYMAtPath(const std::string& path,
                                                                              float maxCoreSymbolicationVersion,
                                                                              const SliceHandler& handler) {
  SymbolFileCache cache;
  return generateCSYMsFromDSYMAtPath(path, maxCoreSymbolicationVersion, handler, cache);
}

std::map<std::string, std::string> CSYMGenerator::generateCSYMsFromDSYMAtPath(const std::string& path,
                                                                              float maxCoreSymbolicationVersion,
                                                                              const SliceHandler& handler,
                                                                              SymbolFileCache& cache,
                                                                              support::CleanupRegistry* cleanup) {
  std::map<std::string, std::string> written;
  try {
    SUPSymbolProcessor::enumerateFormattedDataVersion(
        kCSYMFormatVersion, path, maxCoreSymbolicationVersion,
        [&](std::uint64_t /*sourceType*/, const std::optional<std::string>& uuid, const std::string& arch,
            std::string& data, const support::ErrorPtr& error) {
          if (error || !uuid) return;
          std::string csymPath = SUPCSYMGeneratorUtilities::csymPathForArchitecture(arch, *uuid, path);
          // Shared before the file is written: whatever the caller does
          // with the text (gzip it) need not wait for the write.
          auto text = std::make_shared<const std::string>(std::move(data));
          if (handler.made) handler.made(csymPath, text);
          if (!writeFileAtomically(csymPath, *text, cleanup)) {
            console::SYLLogError("Could not write cSYM file {}: {}", csymPath, std::strerror(errno));
            if (handler.notWritten) handler.notWritten(csymPath);
            return;
          }
          written[*uuid] = arch;
          if (handler.written) handler.written(csymPath, *text);
        },
        cache);
  } catch (const SymbolReaderException&) {
    // A bundle without a DWARF file has no readable slice; the caller reports
    // the slices it expected and did not get.
  } catch (const std::bad_alloc&) {
    // Too little memory for a slice: the slices not converted are the
    // caller's to report, and the run goes on to fail cleanly.
    console::SYLLogError("Not enough memory to convert the slices of {}", console::printable(path));
  }
  return written;
}

std::map<std::string, std::string> CSYMGenerator::generateCSYMsFromDSYMAtPath(const std::string& path) {
  return generateCSYMsFromDSYMAtPath(path, defaultMaxCoreSymbolicationVersion());
}

}  // namespace symlift::symbols
