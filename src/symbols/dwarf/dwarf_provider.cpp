#include "symbols/dwarf/dwarf_provider.h"

#include "macho/architecture_names.h"
#include "symbols/dwarf/image_symbols.h"
#include "symbols/dwarf/macho_image.h"
#include "symbols/dwarf/mapped_file.h"

namespace symlift::symbols {

std::string SymbolicationArchitecture::familyName() const {
  const char* name = macho::publishedArchitectureName(cputype, cpusubtype);
  return name ? name : "unknown";
}

}  // namespace symlift::symbols

namespace symlift::symbols::dwarf {

namespace {

// The image itself as its only symbol owner. Symbols are read when the
// owner is made and live as long as it does.
class ImageOwner final : public SymbolOwner {
 public:
  explicit ImageOwner(const MachOImage& image) : image_(image), symbols_(readImageSymbols(image)) {}

  std::uint64_t baseAddress() const override { return image_.textSegmentAddress; }
  std::optional<std::array<std::uint8_t, 16>> uuidBytes() const override { return image_.uuid; }
  bool isDsym() const override { return image_.fileType == kMachOFileDsym; }
  bool isDylib() const override {
    return image_.fileType == kMachOFileDylib || image_.fileType == kMachOFileBundle;
  }
  bool isDyldSharedCache() const override { return false; }
  bool isObject() const override { return image_.fileType == kMachOFileObject; }

  void forEachTextSymbol(const std::function<void(const SymbolInfo&)>& visitor) const override {
    std::vector<SourceInfo> sources;  // one symbol's, reused
    for (const ImageSymbol& symbol : symbols_.symbols) {
      SymbolInfo info;
      info.mangledName = symbol.mangledName;
      info.name = symbol.name;
      info.address = symbol.address;
      info.length = symbol.length;
      sources.clear();
      for (std::size_t i = 0; i < symbol.sourceCount; ++i) sources.push_back(symbols_.source(symbol.firstSource + i));
      info.sourceInfos = sources;
      visitor(info);
    }
  }

  std::size_t sourceInfoCountHint() const override { return symbols_.sources.size() + symbols_.symbols.size(); }

 private:
  const MachOImage& image_;
  ImageSymbols symbols_;
};

class ImageSymbolicator final : public Symbolicator {
 public:
  explicit ImageSymbolicator(const MachOImage& image) : image_(image) {}

  SymbolicationArchitecture architecture() const override {
    return SymbolicationArchitecture{image_.cputype, image_.cpusubtype};
  }

  void forEachSymbolOwner(const std::function<void(const SymbolOwner&)>& visitor) const override {
    ImageOwner owner(image_);
    visitor(owner);
  }

 private:
  const MachOImage& image_;
};

class DwarfSymbolicationProvider final : public SymbolicationProvider {
 public:
  void forEachSymbolicatorWithPath(const std::string& path,
                                   const std::function<void(const Symbolicator&)>& visitor) const override {
    std::shared_ptr<MappedFile> file = MappedFile::open(path);
    if (!file) return;
    std::vector<MachOImage> images = readMachOImages(file->bytes());
    for (const MachOImage& image : images) {
      ImageSymbolicator symbolicator(image);
      visitor(symbolicator);
    }
  }
};

}  // namespace

std::shared_ptr<SymbolicationProvider> makeDwarfSymbolicationProvider() {
  return std::make_shared<DwarfSymbolicationProvider>();
}

}  // namespace symlift::symbols::dwarf
