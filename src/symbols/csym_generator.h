#pragma once
// Writes one cSYM file per readable slice of a DWARF file into the temporary
// directory, named by architecture and UUID.

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "symbols/symbol_file_cache.h"

namespace symlift::support {
class CleanupRegistry;
}

namespace symlift::symbols {

class SUPCSYMGeneratorUtilities {
 public:
  // "<temporary directory>/<arch>-<uuid>.csym". The dSYM path is accepted but
  // not used: the same slice always maps to the same file.
  static std::string csymPathForArchitecture(const std::string& architecture, const std::string& uuid,
                                             const std::string& dsymPath);
};

class CSYMGenerator {
 public:
  // Returns UUID → architecture name for every cSYM file written. Slices that
  // come with an error (no UUID) and files that cannot be written are left out
  // silently; the caller compares the result with the UUIDs it expects.
  static std::map<std::string, std::string> generateCSYMsFromDSYMAtPath(const std::string& path,
                                                                        float maxCoreSymbolicationVersion);
  // The same, telling handler of every slice's text: made as soon as it
  // exists (the generator shares it, then writes the file), and then
  // written or notWritten, before the next slice's text is made. The file is
  // read through the run's cache (see SymbolFileCache); the cSYM files are
  // registered with cleanup (when given) from before they exist.
  struct SliceHandler {
    std::function<void(const std::string& csymPath, const std::shared_ptr<const std::string>& text)> made;
    std::function<void(const std::string& csymPath, const std::string& text)> written;
    std::function<void(const std::string& csymPath)> notWritten;
  };
  static std::map<std::string, std::string> generateCSYMsFromDSYMAtPath(const std::string& path,
                                                                        float maxCoreSymbolicationVersion,
                                                                        const SliceHandler& handler,
                                                                        SymbolFileCache& cache,
                                                                        support::CleanupRegistry* cleanup = nullptr);
  // The same through a cache of its own.
  static std::map<std::string, std::string> generateCSYMsFromDSYMAtPath(const std::string& path,
                                                                        float maxCoreSymbolicationVersion,
                                                                        const SliceHandler& handler);
  // The same with the process-wide default maximum symbolication version.
  static std::map<std::string, std::string> generateCSYMsFromDSYMAtPath(const std::string& path);

  // Replaces the file at path with bytes as its whole contents (written beside
  // it and renamed into place, so a reader never sees half a file).
  static bool writeFileAtomically(const std::string& path, const std::string& bytes,
                                  support::CleanupRegistry* cleanup = nullptr);
};

}  // namespace symlift::symbols
