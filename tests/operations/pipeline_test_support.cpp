#include "operations/pipeline_test_support.h"

#include <zlib.h>

#include <algorithm>

namespace symlift::testing {

std::vector<std::string> ScopedTemporaryDirectory::fileNames() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir_.path()))
    if (entry.is_regular_file()) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

std::shared_ptr<dsym::SUPCodeMappingInfoContainer> containerForBundle(const std::filesystem::path& bundle,
                                                                      const std::string& dwarfName,
                                                                      bool convertOnly, const std::string& appId) {
  auto container = std::make_shared<dsym::SUPCodeMappingInfoContainer>();
  container->setDSYMFile(
      dsym::SUPDSYMFile::initWithDWARFURL(bundle / "Contents/Resources/DWARF" / dwarfName, bundle));
  container->setPlatform("ios");
  container->setOmvaraAppId(appId);
  container->setConvertOnly(convertOnly);
  return container;
}

std::optional<std::string> gunzip(const std::string& bytes) {
  z_stream stream{};
  if (inflateInit2(&stream, 16 + MAX_WBITS) != Z_OK) return std::nullopt;
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
  stream.avail_in = static_cast<uInt>(bytes.size());
  std::string out;
  char buffer[16384];
  int status = Z_OK;
  while (status == Z_OK) {
    stream.next_out = reinterpret_cast<Bytef*>(buffer);
    stream.avail_out = sizeof buffer;
    status = inflate(&stream, Z_NO_FLUSH);
    out.append(buffer, sizeof buffer - stream.avail_out);
  }
  const bool complete = status == Z_STREAM_END && stream.avail_in == 0;
  inflateEnd(&stream);
  if (!complete) return std::nullopt;
  return out;
}

}  // namespace symlift::testing
