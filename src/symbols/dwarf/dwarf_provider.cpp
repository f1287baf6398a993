#include "symbols/dwarf/dwarf_provider.h"

#ifdef __GLIBC__
#include <malloc.h>
#endif

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

// Hands the pages of freed heap memory back to the system, so that what one
// slice needed does not stay counted while the next is read.
void returnFreeMemory() {
#ifdef __GLIBC__
  ::malloc_trim(0);
#endif
}

// The image itself as its only symbol owner. Symbols are read when the
// owner is made and live as long as it does.
class ImageOwner final : public SymbolOwner {
 public:
  // Once the symbols are made nothing points into the slice any more (names
  // and paths are copies): its pages leave memory.
  ImageOwner(const MachOImage& image, const MappedFile& file) : image_(image), symbols_(readImageSymbols(image)) {
    file.release(image.bytes);
    // The decoding threads' lists are gone too.
    returnFreeMemory();
  }

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
  ImageSymbolicator(const MachOImage& image, const MappedFile& file) : image_(image), file_(file) {}

  SymbolicationArchitecture architecture() const override {
    return SymbolicationArchitecture{image_.cputype, image_.cpusubtype};
  }

  void forEachSymbolOwner(const std::function<void(const SymbolOwner&)>& visitor) const override {
    ImageOwner owner(image_, file_);
    visitor(owner);
  }

 private:
  const MachOImage& image_;
  const MappedFile& file_;
};

class DwarfSymbolicationProvider final : public SymbolicationProvider {
 public:
  void forEachSymbolicatorWithPath(const std::string& path,
                                   const std::function<void(const Symbolicator&)>& visitor) const override {
    std::shared_ptr<MappedFile> file = MappedFile::open(path);
    if (!file) return;
    std::vector<MachOImage> images = readMachOImages(file->bytes());
    for (const MachOImage& image : images) {
      ImageSymbolicator symbolicator(image, *file);
      visitor(symbolicator);
      // Slices are read one after the other: this one's pages can go, and
      // so can the memory its lists took.
      file->release(image.bytes);
      returnFreeMemory();
    }
  }
};

}  // namespace

std::shared_ptr<SymbolicationProvider> makeDwarfSymbolicationProvider() {
  return std::make_shared<DwarfSymbolicationProvider>();
}

}  // namespace symlift::symbols::dwarf
