// csym-dump: prints the cSYM text that symlift would upload for each
// architecture slice of a dSYM bundle or DWARF file, one document after the
// other, so that a person can read what a crash report can be symbolicated
// with. Notes about slices go to standard error.
//
//   csym-dump [--summary] path/to/App.dSYM [more paths...]

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "symbols/symbol_processor.h"

namespace {

void printUsage() {
  std::fputs("usage: csym-dump [--summary] <dSYM bundle or DWARF file>...\n"
             "  Prints the cSYM text of every architecture slice to standard output.\n"
             "  --summary  print only each slice's header line\n",
             stderr);
}

}  // namespace

int main(int argc, char** argv) {
  using symlift::symbols::SUPSymbolProcessor;
  bool summaryOnly = false;
  std::vector<std::string> paths;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--summary") == 0) {
      summaryOnly = true;
    } else if (std::strcmp(argv[i], "-h") == 0 || std::strcmp(argv[i], "--help") == 0) {
      printUsage();
      return 0;
    } else {
      paths.emplace_back(argv[i]);
    }
  }
  if (paths.empty()) {
    printUsage();
    return 2;
  }

  int status = 0;
  for (const std::string& path : paths) {
    int slices = 0;
    try {
      SUPSymbolProcessor::enumerateFormattedDataVersion(
          1, path,
          [&](std::uint64_t, const std::optional<std::string>& uuid, const std::string& arch,
              const std::string& data, const symlift::support::ErrorPtr& error) {
            ++slices;
            if (error)
              std::fprintf(stderr, "csym-dump: %s: %s slice %s: %s (symlift would not upload it)\n", path.c_str(),
                           arch.c_str(), uuid.value_or("(null)").c_str(), error->description().c_str());
            std::size_t length = summaryOnly ? data.find('\n') + 1 : data.size();
            std::fwrite(data.data(), 1, length, stdout);
          });
    } catch (const symlift::symbols::SymbolReaderException& exception) {
      std::fprintf(stderr, "csym-dump: %s: %s\n", path.c_str(), exception.what());
      status = 1;
      continue;
    }
    if (slices == 0) {
      std::fprintf(stderr, "csym-dump: %s: no readable architecture slice\n", path.c_str());
      status = 1;
    }
  }
  return std::fflush(stdout) == 0 ? status : 1;
}
