// bench-convert: converts one DWARF file the way a convert-only symlift run
// does, for timing: CSYMGenerator writes one cSYM file per slice into
// $TMPDIR, then every slice's file is read whole and gzipped (zlib's gzip
// file interface, mode "w", one write) into a ".zip" file beside it, slices
// in parallel, and the compressed bytes are read back. Both files are kept.
// Prints one line per slice: architecture, UUID, cSYM bytes, gzip bytes.
//
//   bench-convert path/to/DWARF/file

#include <zlib.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "symbols/csym_generator.h"

namespace {

std::string readWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) return {};
  std::string bytes(static_cast<std::size_t>(in.tellg()), '\0');
  in.seekg(0);
  in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  bytes.resize(static_cast<std::size_t>(in.gcount()));
  return bytes;
}

struct Slice {
  std::string arch;
  std::string uuid;
  std::size_t csymBytes = 0;
  std::size_t gzipBytes = 0;
  bool ok = false;
};

void compress(const std::string& dwarfPath, Slice& slice) {
  using symlift::symbols::SUPCSYMGeneratorUtilities;
  std::string csymPath = SUPCSYMGeneratorUtilities::csymPathForArchitecture(slice.arch, slice.uuid, dwarfPath);
  std::string gzipPath = csymPath + ".zip";
  std::string text = readWhole(csymPath);
  gzFile out = gzopen(gzipPath.c_str(), "w");
  if (!out) return;
  bool written = text.empty() || gzwrite(out, text.data(), static_cast<unsigned>(text.size())) ==
                                     static_cast<int>(text.size());
  gzclose(out);
  slice.csymBytes = text.size();
  slice.gzipBytes = readWhole(gzipPath).size();
  slice.ok = written && slice.gzipBytes > 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: bench-convert <DWARF file or dSYM bundle>\n", stderr);
    return 2;
  }
  std::string path = argv[1];
  std::map<std::string, std::string> written = symlift::symbols::CSYMGenerator::generateCSYMsFromDSYMAtPath(path);
  if (written.empty()) {
    std::fprintf(stderr, "bench-convert: %s: no slice converted\n", path.c_str());
    return 1;
  }
  std::vector<Slice> slices;
  for (const auto& [uuid, arch] : written) slices.push_back({arch, uuid});
  {
    std::vector<std::jthread> workers;
    for (Slice& slice : slices) workers.emplace_back([&path, &slice] { compress(path, slice); });
  }
  int status = 0;
  for (const Slice& slice : slices) {
    std::printf("%s\t%s\t%zu\t%zu\n", slice.arch.c_str(), slice.uuid.c_str(), slice.csymBytes, slice.gzipBytes);
    if (!slice.ok) status = 1;
  }
  return status;
}
